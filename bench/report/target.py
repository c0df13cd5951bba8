"""Counts the instructions of each operation in the box, prints them beside their floors and compares the
ratios with the baseline; with --accept makes them the baseline.

What moves both sides alike, as another kernel does, leaves a ratio where it is."""

import csv
import subprocess
import sys

from programs import ROOT, Failed

sys.path.insert(0, str(ROOT / "device"))

import box

TARGETS = ROOT / "bench/targets.csv"
BASELINE = ROOT / "bench/target_costs.csv"
TOLERANCE = 0.01
SECONDS = 300


def count():
    """Instructions of floor and library by operation, of those that have a target."""
    with open(TARGETS, newline="") as file:
        wanted = [row["operation"] for row in csv.DictReader(file)]
    counts = {}
    with box.Box("costs", counting=True) as router:
        router.wait_for("^costs: all counted$", SECONDS)
        for line in router.lines:
            if line.startswith("cost "):
                floor, library, name = line.removeprefix("cost ").split(" ", 2)
                counts[name] = (float(floor), float(library))
    if missing := set(wanted) - counts.keys():
        raise Failed("not counted: %s" % ", ".join(sorted(missing)))
    return {name: counts[name] for name in wanted}


def read_baseline():
    with open(BASELINE, newline="") as file:
        return {row["operation"]: (float(row["floor"]), float(row["library"]))
                for row in csv.DictReader(file)}


def accept(counts):
    with open(BASELINE, "w", newline="") as file:
        rows = csv.writer(file, lineterminator="\n")
        rows.writerow(("operation", "floor", "library"))
        rows.writerows((name, "%.1f" % floor, "%.1f" % library)
                       for name, (floor, library) in counts.items())


def ratio(floor, library):
    return library / floor


def main(arguments):
    box.end_on_signals()
    box.build()
    counts = count()
    if "--accept" in arguments:
        accept(counts)
    baseline = read_baseline()
    print("| instructions of an operation on the target | floor | library | ratio | to the baseline's |")
    print("|---|---|---|---|---|")
    dearer = []
    for name, both in counts.items():
        change = ratio(*both) / ratio(*baseline[name]) - 1 if name in baseline else None
        print("| %s | %.0f | %.0f | %.3f | %s |" % (
            name, *both, ratio(*both), "new" if change is None else "%+.2f %%" % (100 * change)))
        if change is None:
            dearer.append("%s: not in %s" % (name, BASELINE.relative_to(ROOT)))
        elif change > TOLERANCE:
            dearer.append("%s: %.0f instructions for a floor of %.0f; they were %.0f for %.0f" %
                          (name, both[1], both[0], baseline[name][1], baseline[name][0]))
    for line in dearer:
        print("dearer: " + line, file=sys.stderr)
    if dearer:
        print("If it is worth it, run bench/run --target --accept", file=sys.stderr)
    return 1 if dearer else 0


try:
    sys.exit(main(sys.argv[1:]))
except (Failed, box.BoxError, OSError, subprocess.SubprocessError) as error:
    print("bench/run: %s" % error, file=sys.stderr)
    sys.exit(3)
