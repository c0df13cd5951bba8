"""Runs every suite of checks, those of the host alone (--quick), or one check (--only NAME), and sums
them up."""

import signal
import sys

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
CHECKS = {
    "format": sources.check_format,
    "arrows": sources.check_arrows,
    "analysis": sources.check_analysis,
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
    "device": tests.check_device,
    "costs": tests.check_costs,
}


def library_targets():
    """Those that are built."""
    return [target for target in LIBRARY_TARGETS if (BUILD / target / "libsysconfig.so").exists()]


def run_all(quick):
    test_targets = ("host",) if quick else TEST_TARGETS
    if not quick:
        run("fetch-musl", fetch_musl)
    run("build", tests.build, test_targets if quick else TEST_TARGETS + ("mipsel-small",))
    for name, check in CHECKS.items():
        if quick and name == "analysis":
            run(name, sources.check_analysis, True)
        else:
            run(name, check)
    results = {target: run("tests-" + target, tests.run_tests, target) or tests.Results()
               for target in test_targets}
    if not quick:
        results["box"] = run("tests-box", tests.run_box) or tests.Results()
    run("counts", tests.check_counts, results)
    if not quick:
        for name, check in SLOW_CHECKS.items():
            run(name, check)


def main(words):
    LOGS.mkdir(parents=True, exist_ok=True)
    checks = {**CHECKS, **SLOW_CHECKS}
    if words[:1] == ["--only"]:
        run(words[1], checks[words[1]])
    else:
        run_all(quick="--quick" in words)

    print()
    for suite in done:
        print(suite.summary())
    failed = sum(suite.failed for suite in done)
    print("%d passed, %d failed, %d s, %d MB in build" % (
        sum(suite.passed for suite in done), failed, sum(suite.seconds for suite in done),
        int(output(["du", "-sm", BUILD]).split()[0])))
    return 1 if failed else 0


# A signal that is ignored here stays ignored in the programs that tests end by it.
for number in (signal.SIGHUP, signal.SIGINT, signal.SIGQUIT, signal.SIGTERM):
    signal.signal(number, signal.SIG_DFL)
sys.exit(main(sys.argv[1:]))
