"""Runs every suite of checks, those of the host alone (--quick), or one check (--only NAME), and sums
them up."""

import os
import signal
import sys
import threading
import time
import traceback
from functools import partial

import abi
import binaries
import manual
import sizes
import sources
import tests
from suite import BUILD, LOGS, ROOT, Suite, output

LIBRARY_TARGETS = ("host", "i386", "mipsel", "mipsel-small")
TEST_TARGETS = ("host", "asan", "i386", "mipsel")

done = []


def run(name, check, *arguments):
    """Runs one suite. What breaks a check itself fails that suite, not the run."""
    print("%s ..." % name, flush=True)
    suite = Suite(name)
    result = None
    try:
        result = check(suite, *arguments)
    except Exception as error:
        suite.fail("%s broke off: %r" % (name, error))
    suite.end()
    done.append(suite)
    return result


def fetch_musl(suite):
    suite.run([ROOT / "tools/fetch_musl"], check="fetch")


# What CTest runs, too, each on its own (ctest -L NAME): checks of the tree and of what was built.
SOURCE_CHECKS = {
    "format": sources.check_format,
    "arrows": sources.check_arrows,
}
CHECKS = {
    "headers": lambda suite: sources.check_headers(suite, library_targets()),
    "library": lambda suite: binaries.check_library(suite, library_targets()),
    "manual": manual.check_manual,
    "commands": manual.check_commands,
    "abi": abi.check_abi,
    "model": lambda suite: suite.run([ROOT / "model/check"], check="model of a try"),
}
SLOW_CHECKS = {
    "sizes": sizes.check_sizes,
    "layout": sources.check_layout,
    "package": tests.check_package,
    "small": tests.check_small,
    "demo": tests.check_demo,
}
TIMED_CHECKS = {
    "page": tests.check_page,
    "device": tests.check_device,
    "costs": tests.check_costs,
}


def library_targets():
    """Those that are built."""
    return [target for target in LIBRARY_TARGETS if (BUILD / target / "libsysconfig.so").exists()]


class Lane(threading.Thread):
    """Suites one after another, beside another lane. The programs of a lane that gives way get the
    time that the other lane leaves."""

    def __init__(self, suites, gives_way):
        super().__init__(daemon=True)
        self._suites = suites
        self._gives_way = gives_way

    def run(self):
        if self._gives_way:
            os.nice(10)  # on Linux: this thread and the programs that it starts
        try:
            for suite in self._suites:
                suite()
        except Exception:
            traceback.print_exc()
            os._exit(1)  # other lanes would wait for this one


def run_all(quick):
    """Two lanes side by side. The first one has the tests and what else watches the clock: nothing runs
    beside that but what gives way, in the second one, which has what the tests wait for, and the checks."""
    targets = ("host",) if quick else TEST_TARGETS + ("mipsel-small",)
    built = {target: threading.Event() for target in targets}
    results = {target: tests.Results() for target in (("host",) if quick else (*TEST_TARGETS, "box"))}

    def build(target):
        run("build-" + target, tests.build, target)
        built[target].set()

    def test(target):
        built[target].wait()
        results[target] = run("tests-" + target, tests.run_tests, target) or results[target]

    def test_box():
        built["mipsel-small"].wait()
        results["box"] = run("tests-box", tests.run_box) or results["box"]

    def suites(checks):
        return [partial(run, name, check) for name, check in checks.items()]

    analysis = sources.check_analysis
    first = [partial(build, "host"), *(partial(test, target) for target in results if target != "box")]
    if quick:
        lanes = [Lane(first, False),
                 Lane([*suites(SOURCE_CHECKS), built["host"].wait,
                       partial(run, "analysis", analysis, True), *suites(CHECKS)], True)]
    else:
        lanes = [Lane([*first, test_box, *suites(TIMED_CHECKS)], False),
                 Lane([partial(run, "fetch-musl", fetch_musl),
                       *(partial(build, target) for target in targets if target != "host"),
                       built["host"].wait, *suites(SOURCE_CHECKS), partial(run, "analysis", analysis),
                       *suites({**CHECKS, **SLOW_CHECKS})], True)]
    for lane in lanes:
        lane.start()
    for lane in lanes:
        lane.join()
    run("counts", tests.check_counts, results)


def main(words):
    started = time.monotonic()
    LOGS.mkdir(parents=True, exist_ok=True)
    checks = {**SOURCE_CHECKS, "analysis": sources.check_analysis, **CHECKS, **SLOW_CHECKS,
              **TIMED_CHECKS}
    if words[:1] == ["--only"]:
        run(words[1], checks[words[1]])
    else:
        run_all(quick="--quick" in words)

    print()
    for suite in done:
        print(suite.summary())
    failed = sum(suite.failed for suite in done)
    print("%d passed, %d failed, %d s, %d MB in build" % (
        sum(suite.passed for suite in done), failed, time.monotonic() - started,
        int(output(["du", "-sm", BUILD]).split()[0])))
    return 1 if failed else 0


# A signal that is ignored here stays ignored in the programs that tests end by it.
for number in (signal.SIGHUP, signal.SIGINT, signal.SIGQUIT, signal.SIGTERM):
    signal.signal(number, signal.SIG_DFL)
sys.exit(main(sys.argv[1:]))
