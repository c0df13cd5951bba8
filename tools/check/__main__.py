"""Runs every suite of checks, those of the host alone (--quick), or one check (--only NAME), and sums
them up."""

import os
import signal
import sys
import threading
import time
import traceback

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
    "overlays": tests.check_overlays,
    "package": tests.check_package,
    "small": tests.check_small,
    "demo": tests.check_demo,
}
ROUTER_CHECKS = {
    "powercuts": tests.check_powercuts,
    "device": tests.check_device,
    "costs": tests.check_costs,
}


def library_targets():
    """Those that are built."""
    return [target for target in LIBRARY_TARGETS if (BUILD / target / "libsysconfig.so").exists()]


class Job:
    """A suite that waits for others. One that watches the clock has tests with deadlines: of those one
    runs at a time, and beside it nothing but what gives way."""

    def __init__(self, name, needs, check, *arguments, watches_clock=False, record=None):
        self.name, self.needs, self.watches_clock = name, needs, watches_clock
        self._check, self._arguments, self._record = check, arguments, record

    def __call__(self):
        result = run(self.name, self._check, *self._arguments)
        if self._record is not None and result is not None:
            self._record[self.name.split("-", 1)[1]] = result


class Lanes:
    """Two lanes side by side. The second one gives way: its programs get the time that the first one
    leaves. Each takes the first job that has what it needs; those that watch the clock are the first
    lane's, and it takes others while none of these is ready."""

    def __init__(self, jobs):
        self._waiting = list(jobs)
        self._names = {job.name for job in jobs}
        self._ended = set()
        self._changed = threading.Condition()

    def _next(self, gives_way):
        with self._changed:
            while self._waiting:
                ready = [job for job in self._waiting if job.needs & self._names <= self._ended
                         and not (gives_way and job.watches_clock)]
                if ready:
                    job = max(ready, key=lambda job: job.watches_clock)  # the first of these
                    self._waiting.remove(job)
                    return job
                self._changed.wait()
        return None

    def _work(self, gives_way):
        if gives_way:
            os.nice(10)  # on Linux: this thread and the programs that it starts
        try:
            while (job := self._next(gives_way)) is not None:
                job()
                with self._changed:
                    self._ended.add(job.name)
                    self._changed.notify_all()
        except Exception:
            traceback.print_exc()
            os._exit(1)  # the other lane would wait for this one

    def run(self):
        lanes = [threading.Thread(target=self._work, args=(gives_way,), daemon=True)
                 for gives_way in (False, True)]
        for lane in lanes:
            lane.start()
        for lane in lanes:
            lane.join()


def run_all(quick):
    targets = ("host",) if quick else TEST_TARGETS + ("mipsel-small",)
    every_build = {"build-" + target for target in targets}
    results = {target: tests.Results() for target in (("host",) if quick else (*TEST_TARGETS, "box"))}

    def suites(checks, needs=frozenset()):
        return [Job(name, needs, check) for name, check in checks.items()]

    def builds(*names):
        return [Job("build-" + name, {"fetch-musl"} if name == "mipsel-small" else set(), tests.build, name)
                for name in names]

    jobs = [*builds("host"),
            *(Job("tests-" + target, {"build-" + target}, tests.run_tests, target, watches_clock=True,
                  record=results) for target in results if target != "box")]
    if quick:
        jobs += [*suites(SOURCE_CHECKS), Job("analysis", every_build, sources.check_analysis, True),
                 *suites(CHECKS, every_build)]
    else:
        jobs += [Job("fetch-musl", set(), fetch_musl), *builds(*targets[1:]),
                 Job("tests-box", {"build-mipsel", "build-mipsel-small"}, tests.run_box, record=results),
                 Job("page", {"build-host"}, tests.check_page, watches_clock=True),
                 *suites(ROUTER_CHECKS, every_build),
                 Job("analysis", {"build-host"}, sources.check_analysis), *suites(SOURCE_CHECKS),
                 *suites({**CHECKS, **SLOW_CHECKS}, every_build)]
    Lanes(jobs).run()
    run("counts", tests.check_counts, results)


def main(words):
    started = time.monotonic()
    LOGS.mkdir(parents=True, exist_ok=True)
    checks = {**SOURCE_CHECKS, "analysis": sources.check_analysis, **CHECKS, **SLOW_CHECKS,
              "page": tests.check_page, **ROUTER_CHECKS}
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
