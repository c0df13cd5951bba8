"""Counts the instructions of each operation in the box, prints them beside their floors and compares the
ratios with the baseline; with --accept makes them the baseline. With --peers counts and prints the
operations beside other stores.

What moves both sides alike, as another kernel does, leaves a ratio where it is."""

import csv
import pathlib
import subprocess
import sys
import tempfile

import target_peers
from programs import BUILD, ROOT, Failed
from tables import PEERS, table

sys.path.insert(0, str(ROOT / "device"))

import box

TARGETS = ROOT / "bench/targets.csv"
BASELINE = ROOT / "bench/target_costs.csv"
TOLERANCE = 0.01
SECONDS = 300


def count(job, sides, initrds=()):
    """Instructions of each side by operation, as a job of the box counts them."""
    counts = {}
    with box.Box(job, counting=True, initrds=initrds) as router:
        router.wait_for("^costs: all counted$", SECONDS)
        for line in router.lines:
            if line.startswith("cost "):
                *numbers, name = line.removeprefix("cost ").split(" ", sides)
                counts[name] = tuple(map(float, numbers))
    return counts


def count_costs():
    """Instructions of floor and library by operation, of those that have a target."""
    with open(TARGETS, newline="") as file:
        wanted = [row["operation"] for row in csv.DictReader(file)]
    counts = count("costs", 2)
    if missing := set(wanted) - counts.keys():
        raise Failed("not counted: %s" % ", ".join(sorted(missing)))
    return {name: counts[name] for name in wanted}


def compare_with_peers():
    """Prints the instructions of the library and, with their ratio to it, those of other stores."""
    target_peers.build()
    with tempfile.TemporaryDirectory(prefix="peers.", dir=BUILD) as folder:
        archive = target_peers.pack(pathlib.Path(folder))
        counts = count("peers", 1 + len(PEERS), [archive])
    rows = [(name, "%.0f" % library, *("%.0f, %.2f" % (peer, peer / library) for peer in peers))
            for name, (library, *peers) in counts.items()]
    print(table(("instructions of an operation on the target", "library", *PEERS.values()), rows))
    return 0


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
    if "--peers" in arguments:
        return compare_with_peers()
    counts = count_costs()
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
