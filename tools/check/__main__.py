"""Runs every suite of checks, or those of the host alone (--quick), and sums them up."""

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


def main(quick):
    LOGS.mkdir(parents=True, exist_ok=True)
    if quick:
        test_targets, library_targets, built = ("host",), ("host",), ("host",)
    else:
        test_targets, library_targets = TEST_TARGETS, LIBRARY_TARGETS
        built = TEST_TARGETS + ("mipsel-small",)
        run("fetch-musl", lambda suite: suite.run([ROOT / "tools/fetch_musl"], check="fetch"))
    run("build", tests.build, built)
    run("format", sources.check_format)
    run("analysis", sources.check_analysis)
    run("headers", sources.check_headers, library_targets)
    run("library", binaries.check_library, library_targets)
    run("manual", manual.check_manual)
    run("abi", abi.check_abi)
    results = {target: run("tests-" + target, tests.run_tests, target) or tests.Results()
               for target in test_targets}
    if not quick:
        results["box"] = run("tests-box", tests.run_box) or tests.Results()
    run("counts", tests.check_counts, results)
    if not quick:
        run("sizes", sizes.check_sizes)
        run("layout", sources.check_layout)
        run("package", tests.check_package)
        run("small", tests.check_small)
        run("demo", tests.check_demo)
        run("device", tests.check_device)
        run("costs", tests.check_costs)

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
sys.exit(main(quick="--quick" in sys.argv[1:]))
