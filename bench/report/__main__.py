"""Measures everything, prints it as tables and, with --write, puts them into docs/."""

import concurrent.futures
import csv
import datetime
import statistics
import subprocess
import sys

import programs
from programs import ROOT, Failed
from tables import PEERS, table

TARGETS = ROOT / "bench/targets.csv"
DOCUMENT = ROOT / "docs/PERFORMANCE.md"
PICTURE = ROOT / "docs/contention.svg"
PLOT = ROOT / "bench/contention.gp"
BEGIN, END = "<!-- measured by bench/run --write -->", "<!-- end of what was measured -->"

PROCESSES = (1, 2, 4, 8)
CONTENTION_SECONDS = 0.3

# Runs of each program. The number is odd, so the median is one of the runs.
RUNS = 5
LONGER = 5  # times as many with --long

# Enough runs of an operation to tell its cost from that of the start. The counting tools are slow.
COUNTED_TIMES = 32
SAVE = "save an area to flash"


def time(ns):
    for limit, scale, unit in ((1e3, 1, "ns"), (1e6, 1e3, "us")):
        if ns < limit:
            return "%.3g %s" % (ns / scale, unit)
    return "%.3g ms" % (ns / 1e6)


def ratio(row, side):
    if side + "_ratio" not in row:
        return "-"
    return "%.3f (%.2f-%.2f)" % (row[side + "_ratio"], row[side + "_low"], row[side + "_high"])


def operations_table(measured, targets):
    rows, missed = [], []
    for name in measured["-O2"]:
        o2, os = measured["-O2"][name], measured["-Os"][name]
        verdict = "-"
        if name in targets:
            worst = max(o2["library_ratio"], os["library_ratio"])
            reached = worst <= targets[name]
            verdict = "yes" if reached else "no"
            if not reached:
                missed.append("%s: %.3f, not %s" % (name, worst, targets[name]))
        rows.append((name, time(o2["floor_ns"]), time(o2["library_ns"]), ratio(o2, "library"),
                     ratio(os, "library"), str(targets.get(name, "-")), verdict,
                     "%.2f" % o2["plain_ratio"] if "plain_ratio" in o2 else "-"))
    return table(("operation", "floor", "library -O2", "-O2 to floor", "-Os to floor", "target",
                  "reached", "plain C to floor"), rows), missed


def counts_row(name):
    times = 2 if name == SAVE else COUNTED_TIMES
    calls = [programs.each("-O2", name, side, times, programs.system_calls)
             for side in ("floor", "library")]
    executed = [programs.each(variant, name, side, times, programs.instructions)
                for variant, side in (("-O2", "floor"), ("-O2", "library"), ("-Os", "library"))]
    return (name, *map(str, calls + executed))


def counts_table(names):
    with concurrent.futures.ThreadPoolExecutor(2) as pool:  # what is counted, noise does not touch
        rows = list(pool.map(counts_row, names))
    return table(("operation", "system calls: floor", "library", "instructions: floor",
                  "library -O2", "library -Os"), rows)


def peers_table(measured):
    rows = []
    for name, row in measured.items():
        rows.append((name, time(row["sysconfig_ns"]),
                     *("%s, %s" % (time(row[peer + "_ns"]), ratio(row, peer)) for peer in PEERS)))
    return table(("operation", "library -O2", *PEERS.values()), rows)


def contention_results(times):
    """Medians of some runs, the stores taking turns: changes a second, worst wait in us."""
    stores = ("sysconfig", *PEERS)
    runs = {(store, processes): [] for store in stores for processes in PROCESSES}
    for _ in range(times):
        for processes in PROCESSES:
            for store in stores:
                runs[store, processes].append(
                    programs.contend(store, processes, CONTENTION_SECONDS))
    return {key: tuple(map(statistics.median, zip(*results))) for key, results in runs.items()}


def contention_table(results):
    rows = [(label, *("%.0f /s, %s" % (results[store, processes][0],
                                       time(1e3 * results[store, processes][1]))
                      for processes in PROCESSES))
            for store, label in (("sysconfig", "library"), *PEERS.items())]
    return table(("changes a second, worst wait",
                  *("%d process%s" % (n, "es" if n > 1 else "") for n in PROCESSES)), rows)


def draw(results):
    data = programs.BUILD / "contention.dat"
    with open(data, "w") as file:
        for processes in PROCESSES:
            values = [value for store in ("sysconfig", *PEERS)
                      for value in results[store, processes]]
            file.write("%d %s\n" % (processes, " ".join("%.1f" % value for value in values)))
    programs.output(["gnuplot", "-e", "data='%s'; picture='%s'" % (data, PICTURE), PLOT])


def write(text):
    document = DOCUMENT.read_text()
    before, rest = document.split(BEGIN)
    DOCUMENT.write_text(before + BEGIN + "\n" + text + "\n" + END + rest.split(END)[1])


def main(arguments):
    with open(TARGETS, newline="") as file:
        targets = {row["operation"]: float(row["target"]) for row in csv.DictReader(file)}
    programs.build()
    machine = programs.machine()
    longer = LONGER if "--long" in arguments else 1
    measured = programs.measure(programs.VARIANTS, "operations", RUNS * longer)
    unknown = targets.keys() - measured["-O2"].keys()
    if unknown:
        raise Failed("not measured: %s" % ", ".join(sorted(unknown)))
    operations, missed = operations_table(measured, targets)
    contention = contention_results(RUNS * longer)
    text = "\n\n".join((
        "Measured on %s, on %s." % (datetime.date.today(), machine),
        operations, counts_table(targets),
        peers_table(programs.measure(("-O2",), "peers", RUNS * longer)["-O2"]),
        contention_table(contention)))
    print(text)
    if "--write" in arguments:
        write(text)
        draw(contention)
    for line in missed:
        print("not reached: " + line, file=sys.stderr)
    return 1 if missed else 0


try:
    sys.exit(main(sys.argv[1:]))
except (Failed, OSError, subprocess.SubprocessError) as error:
    print("bench/run: %s" % error, file=sys.stderr)
    sys.exit(3)
