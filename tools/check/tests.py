"""Builds the targets, runs their tests and compares what ran where."""

import csv
import fnmatch
import json
import os
import re
import shutil
import subprocess
import xml.etree.ElementTree

import packages
import recipes
from suite import BUILD, LOGS, ROOT, output

EXCEPTIONS = ROOT / "tests/exceptions.csv"

# Tests run in their own namespaces, which needs root; elsewhere a user namespace lends it to them
# (they cannot make one themselves under the emulator, whose process has more than one thread).
AS_ROOT = [] if os.geteuid() == 0 else ["unshare", "--user", "--map-root-user"]


def build(suite, target):
    suite.verdict(suite.run(["cmake", "--preset", target])
                  and suite.run(["cmake", "--build", "--preset", target]), target)


def exceptions(target=None):
    """The rows of EXCEPTIONS, of all targets or of one: what does not run where, and why. A program
    with a part, as 1/4, runs every fourth of its tests there, beginning with the first."""
    with open(EXCEPTIONS, newline="") as file:
        return [row for row in csv.DictReader(file) if target in (None, row["target"])]


class Results:
    """Names of the tests of one target by outcome."""

    def __init__(self):
        self.ran = set()
        self.skipped = set()
        self.programs = {}  # the program of each test


def run_tests(suite, target):
    """Runs the target's test programs; counts each test of a program that reports them singly, and
    each other program as one test."""
    tree = BUILD / target
    shutil.rmtree(tree / "results", ignore_errors=True)
    verdicts = LOGS / (target + "-ctest.xml")
    verdicts.unlink(missing_ok=True)
    kept_out = [row["test"] for row in exceptions(target) if not row["part"]]
    # Twice as many as CPUs: they wait for the kernel, which takes namespaces and mounts apart.
    suite.run([*AS_ROOT, "env", "GTEST_FILTER=-" + ":".join(kept_out), "ctest", "--test-dir", tree,
               "-LE", "check", "-E", "^(%s)$" % "|".join(map(re.escape, kept_out)), "--parallel", "4",
               "--output-on-failure", "--no-tests=error", "--output-junit", verdicts])

    results = Results()
    if not verdicts.exists():
        suite.fail("ctest ended without results")
        return results
    programs = reports_of(tree)
    for case in xml.etree.ElementTree.parse(verdicts).iter("testcase"):
        program, good = case.get("name"), case.get("status") == "run"
        count_tests(suite, results, program, programs[program], good)
    return results


def run_box(suite):
    """Runs the mipsel test programs in the box; see device/run_suite."""
    results = Results()
    shutil.rmtree(BUILD / "box/suite", ignore_errors=True)
    suite.run([ROOT / "device/run_suite"], check="all programs ran and passed")
    programs = reports_of(BUILD / "mipsel")
    for line in (BUILD / "box/suite/statuses").read_text().splitlines():
        program, status = line.split()
        report = programs[program] and BUILD / "box/suite" / (program + ".xml")
        count_tests(suite, results, program, report, good=status == "0")
    return results


def check_device(suite):
    """The router from boot to boot, how long the end of a try takes, and the start with an overlay."""
    suite.run(["tests/device_runs_test.sh"],
              check="each boot lists what was saved or confirmed before, ended runs leave nothing")
    suite.run(["device/try_times"], check="a try of 300 records is taken back in time")
    suite.run(["device/overlay_start"], check="an overlay of 500 fields is read in time")


def check_powercuts(suite):
    """Short series of power cuts."""
    suite.run(["tools/powercut", "--short"], check="with the guard no power cut loses an area")
    suite.run(["tools/powercut", "--try", "--short"],
              check="after a power cut all areas are as before a try or as confirmed")


def check_costs(suite):
    """The instructions of the library's operations in the box, beside their floors; see bench/run."""
    suite.run(["bench/run", "--target"], check="no operation costs more than its baseline")


def count_tests(suite, results, program, report, good):
    """Counts each test that a program reported, or the program itself when it reports none."""
    if report is None:
        suite.verdict(good, program)
        results.ran.add(program)
        results.programs[program] = program
        return
    try:
        reported = xml.etree.ElementTree.parse(report)
    except (OSError, xml.etree.ElementTree.ParseError) as error:
        suite.fail("%s: ended without results (%s)" % (program, error))
        return
    failed_before = suite.failed
    for test in reported.iter("testcase"):
        results.programs[count_test(suite, results, test)] = program
    if not good and suite.failed == failed_before:
        suite.fail("%s: failed outside of its tests" % program)


def reports_of(tree):
    """For each program of a target the file that it writes its single results to, or None."""
    return {test["name"]: reported_to(test) for test in json.loads(
        output(["ctest", "--test-dir", tree, "--show-only=json-v1"]))["tests"]}


def reported_to(test):
    for entry in test["properties"]:
        if entry["name"] == "ENVIRONMENT":
            for variable in entry["value"]:
                if variable.startswith("GTEST_OUTPUT=xml:"):
                    return variable.split(":", 1)[1]
    return None


def count_test(suite, results, test):
    name = "%s.%s" % (test.get("classname"), test.get("name"))
    if name in results.ran or name in results.skipped:
        suite.fail(name + ": there are two tests of this name")
    elif test.find("failure") is not None:
        suite.fail(name)
        results.ran.add(name)
    elif test.get("status") == "run" and test.get("result") == "completed":
        suite.ok(name)
        results.ran.add(name)
    else:
        suite.note("skipped " + name)
        results.skipped.add(name)
    return name


def check_counts(suite, results):
    """Every test runs on every target, but for those that EXCEPTIONS lists with a reason: a test by its
    name or a pattern of names, all tests of a program, or those outside of a part of them. What is left
    out by a part has run on the host."""
    for row in exceptions():
        suite.verdict(row["reason"] and re.fullmatch(r"host|asan|i386|mipsel|box", row["target"])
                      and re.fullmatch(r"([1-9]/[1-9])?", row["part"]),
                      "%s on %s has a reason" % (row["test"], row["target"]))
    every = set().union(*(r.ran | r.skipped for r in results.values()))
    programs = dict(pair for r in results.values() for pair in r.programs.items())
    for target, result in results.items():
        absent = every - result.ran
        listed = set()
        for row in exceptions(target):
            if not row["part"]:
                pattern = row["test"]
                meant = {name for name in every
                         if programs[name] == pattern or fnmatch.fnmatchcase(name, pattern)}
                suite.verdict(meant, "%s: the exception %s is about a test" % (target, pattern))
                listed |= meant
        for row in exceptions(target):
            if row["part"]:
                whole = {name for name in every - listed if programs[name] == row["test"]}
                ran = whole & result.ran
                number, parts = map(int, row["part"].split("/"))
                suite.verdict(0 < len(ran) == len(range(number - 1, len(whole), parts)),
                              "%s: part %s of %s is %d tests of %d" % (
                                  target, row["part"], row["test"], len(ran), len(whole)))
                suite.verdict(whole <= results["host"].ran, "%s: all of %s ran on the host" % (
                    target, row["test"]))
                listed |= whole - ran
        for name in sorted(absent - listed):
            suite.fail("%s: %s did not run and is no listed exception" % (target, name))
        for name in sorted(listed - absent):
            suite.fail("%s: %s is a listed exception, but it ran or does not exist" % (target, name))
        suite.verdict(result.ran and len(result.ran) + len(listed) == len(every),
                      "%s: %d ran + %d exceptions = %d" %
                      (target, len(result.ran), len(listed), len(every)))


VENDOR_PLACES = ("Wan.sections.settings=wan_section", "ManageApList.aps.opaque_11800=ap_vendor",
                 "ProductInfo.settings=product_info")


def check_overlays(suite):
    """What the importer makes of objects, case by case, and beside three compilers. The example's overlay
    is what it makes of the example's object, of each target."""
    importer = BUILD / "host/scctl/scctl-overlay-import"
    vendor = ROOT / "examples/vendor"
    places = [word for place in VENDOR_PLACES for word in ("--at", place)]
    for target in ("host", "i386", "mipsel"):
        made = output([importer, BUILD / target / "examples/CMakeFiles/vendor.dir/vendor/vendor.c.o", *places])
        suite.verdict(made == (vendor / "vendor.layout").read_text(), "vendor.layout, of " + target)
    scctl = BUILD / "host/scctl/scctl"
    for test, *words in (("importer_test",), ("compiler_test", "--scctl", scctl), ("vendor_test", scctl)):
        suite.run([ROOT / "tests/overlay" / test, importer, *words], check=test)


def check_package(suite):
    """The plain build, its installation, and a program that uses it by either way of finding it,
    run once from boot to power cut."""
    plain, prefix, consumer = LOGS / "plain", LOGS / "prefix", LOGS / "consumer"
    for folder in (plain, prefix, consumer):
        shutil.rmtree(folder, ignore_errors=True)
    suite.run(["cmake", "-S", ".", "-B", plain], check="configure without options")
    suite.run(["cmake", "--build", plain, "--parallel", "2"], check="build without options")
    suite.verdict((plain / "libsysconfig.so").exists(), "libsysconfig.so is in the build folder")
    suite.run(["cmake", "-S", ".", "-B", plain, "-DCMAKE_INSTALL_PREFIX=%s" % prefix],
              check="configure for another prefix")
    suite.run(["cmake", "--install", plain], check="install")
    suite.run([prefix / "bin/scpage", "--help"], check="the installed scpage finds its parts")

    suite.run(["cmake", "-S", "tests/consumer", "-B", consumer, "-DCMAKE_PREFIX_PATH=%s" % prefix],
              check="found by CMake")
    suite.run(["cmake", "--build", consumer], check="builds by CMake")
    run_request(suite, [consumer / "typical_request"], "runs when built by CMake")
    check_versions(suite, prefix, consumer)

    os.environ["PKG_CONFIG_PATH"] = str(next(prefix.glob("lib*/**/pkgconfig"), prefix))
    told = [output(["pkg-config", word, "sysconfig"]).strip()
            for word in ("--modversion", "--variable=prefix", "--variable=includedir")]
    suite.verdict(told[0] == "1.0.0", "version of sysconfig.pc", told[0])
    suite.verdict([os.path.realpath(path) for path in told[1:]] == [
        str(prefix), str(prefix / "include")], "folders of sysconfig.pc", " ".join(told[1:]))
    flags = "-Wall -Wextra -Werror $(pkg-config --cflags --libs sysconfig)"
    program = consumer / "by_pkgconf"
    suite.run(["sh", "-c", "gcc tests/consumer/typical_request.c -o %s %s -Wl,-rpath,%s"
               % (program, flags, next(prefix.glob("lib*")))], check="builds by pkg-config")
    run_request(suite, [program], "runs when built by pkg-config")

    suite.run(["cmake", "-S", ".", "-B", plain, "-DCMAKE_INSTALL_PREFIX=/usr"],
              check="configure for packages")
    packages.check_packages(suite, plain, "amd64")
    packages.check_packages(suite, BUILD / "mipsel", "mipsel")
    recipes.check_recipes(suite, prefix)


def check_versions(suite, prefix, consumer):
    """A program gets the version that it asks for, a newer one of the same major, or none."""
    for wanted, found in (("1.0", True), ("1.0.0", True), ("1.1", False), ("0.9", False),
                          ("2.0", False)):
        ended = subprocess.run(
            ["cmake", "-S", "tests/consumer", "-B", consumer / ("wants-" + wanted),
             "-DCMAKE_PREFIX_PATH=%s" % prefix, "-DSYSCONFIG_WANTED=" + wanted],
            cwd=ROOT, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        suite.note(ended.stdout)
        refused = re.search(r"considered but not accepted:\s+\S+/sysconfig-config.cmake, "
                            r"version: 1\.0\.0\n", ended.stdout)
        suite.verdict(ended.returncode == 0 if found else ended.returncode != 0 and refused,
                      "version %s is %s" % (wanted, "found" if found else "refused"),
                      "status %d" % ended.returncode)


def check_page(suite):
    """scpage and its page in a browser; the minute of traffic is tests/scpage/run --long."""
    suite.run([ROOT / "tests/scpage/run"], check="tests of scpage")


def check_small(suite):
    """The typical request by a C program on MIPS with the small C library."""
    musl, library = BUILD / "musl", BUILD / "mipsel-small"
    program = LOGS / "typical_request-small"
    program.unlink(missing_ok=True)
    suite.run(["mipsel-linux-gnu-gcc", "-specs=%s/musl-gcc.specs" % musl, "-std=c99", "-Os",
               "-Wall", "-Wextra", "-Werror", "-Iinclude", "tests/consumer/typical_request.c",
               "-o", program, "-L%s" % library, "-lsysconfig", "-Wl,-rpath,%s" % library],
              check="builds")
    needed = re.findall(r"\(NEEDED\).*\[(.*)\]", output(["readelf", "--dynamic", program])
                        if program.exists() else "")
    suite.verdict(needed == ["libsysconfig.so.1", "libc.so"], "needs the library and the C library",
                  " ".join(needed))
    run_request(suite, ["qemu-mipsel-static", "-L", musl / "root", program], "runs")


def run_request(suite, command, what):
    suite.run(["examples/private_world", *command], check=what)


def check_demo(suite):
    """The demo with its own file, and with one of which a part has to be refused."""
    suite.run(["./demo"], check="its own bindings")
    suite.run(["./demo", "examples/forty_bindings.txt"], status=1, check="refusals are said")
