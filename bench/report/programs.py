"""Builds the benchmark programs and runs them in a private world."""

import json
import os
import pathlib
import re
import statistics
import subprocess
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = ROOT / "build"
WORLD = ROOT / "examples/private_world"

# How the library is built, and where.
VARIANTS = {
    "-O2": ("bench-O2", ["-DCMAKE_BUILD_TYPE=Release", "-DCMAKE_CXX_FLAGS_RELEASE=-O2 -DNDEBUG",
                         "-DCMAKE_C_FLAGS_RELEASE=-O2 -DNDEBUG"]),
    "-Os": ("bench-Os", ["-DCMAKE_BUILD_TYPE=MinSizeRel"]),
}

# The CPU's string instructions, which the C library uses, would count as one instruction a byte.
NO_STRING_INSTRUCTIONS = ("GLIBC_TUNABLES=glibc.cpu.x86_rep_stosb_threshold=1073741824:"
                          "glibc.cpu.x86_rep_movsb_threshold=1073741824")


class Failed(Exception):
    """It could not be measured."""


def output(command, **options):
    result = subprocess.run([str(word) for word in command], cwd=ROOT, text=True,
                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, **options)
    if result.returncode != 0:
        raise Failed("%s ended with status %d\n%s%s" % (
            " ".join(str(word) for word in command), result.returncode, result.stdout,
            result.stderr[-2000:]))
    return result


def program(variant, name):
    return BUILD / VARIANTS[variant][0] / "bench" / name


def build():
    for folder, options in VARIANTS.values():
        output(["cmake", "-S", ".", "-B", BUILD / folder, "-DSYSCONFIG_BENCH=ON", *options])
        output(["cmake", "--build", BUILD / folder, "--parallel", "2"])


def measure_once(variant, name):
    """Counters of each comparison of a program, by name."""
    text = output([WORLD, program(variant, name), "--benchmark_format=json"]).stdout
    found = {}
    for benchmark in json.loads(text)["benchmarks"]:
        if benchmark.get("error_occurred"):
            raise Failed("%s: %s" % (benchmark["name"], benchmark["error_message"]))
        found[benchmark["name"].split("/iterations:")[0]] = {
            counter: value for counter, value in benchmark.items()
            if counter.endswith(("_ns", "_ratio", "_low", "_high"))}
    return found


def measure(variants, name, runs):
    """For each variant what measure_once gives, medians of some runs. Each process has its own luck
    with where its pages lie and each minute its own neighbours, so processes take turns."""
    found = {variant: [] for variant in variants}
    for _ in range(runs):
        for variant in variants:
            found[variant].append(measure_once(variant, name))
    return {variant: {comparison: {counter: statistics.median(run[comparison][counter]
                                                              for run in all_runs)
                                   for counter in counters}
                      for comparison, counters in all_runs[0].items()}
            for variant, all_runs in found.items()}


def each(variant, operation, side, times, count):
    """What `count` says of so many more of an operation, for each; exact, so it must be whole."""
    command = [program(variant, "operations"), "--only=" + operation, "--side=" + side]
    less = count(command + ["--times=%d" % times])
    more = count(command + ["--times=%d" % (2 * times)])
    if (more - less) % times:
        raise Failed("%s, %s: %d and then %d are no whole number each" %
                     (operation, side, less, more))
    return (more - less) // times


def system_calls(command):
    """Made by the program itself, not by commands that it starts."""
    with tempfile.NamedTemporaryFile("r", dir=BUILD) as log:
        output([WORLD, "strace", "-c", "-o", log.name, *command])
        return int(re.search(r"^100\.00\s+\S+\s+\S+\s+(\d+).*total$", log.read(),
                             re.MULTILINE).group(1))


def instructions(command):
    result = output([WORLD, "env", NO_STRING_INSTRUCTIONS, "valgrind", "--tool=callgrind",
                     "--toggle-collect=*run_counted*", "--callgrind-out-file=/dev/null", *command])
    return int(re.search(r"Collected : (\d+)", result.stderr).group(1))


def contend(store, processes, seconds):
    """Changes a second and the worst wait in microseconds."""
    text = output([WORLD, program("-O2", "contention"), store, processes, seconds]).stdout
    _, _, changes, wait = text.split()
    return float(changes), float(wait)


def machine():
    """What was measured on."""
    model = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
    return "%s, %d CPUs; Linux %s; %s; load %.1f" % (
        model.group(1) if model else os.uname().machine, os.cpu_count(), os.uname().release,
        output(["c++", "--version"]).stdout.splitlines()[0], os.getloadavg()[0])
