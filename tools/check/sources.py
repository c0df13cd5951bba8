"""Checks that read the sources: format, static analysis, public headers."""

import functools
import hashlib
import json
import re
import shlex
import subprocess
from concurrent.futures import ThreadPoolExecutor

from suite import BUILD, LOGS, ROOT, files, output

C_FAMILY = ("**/*.h", "**/*.c", "**/*.cc")

# Compilers that every public header is read by. The small C library's is named with its specs.
COMPILERS = {
    "host": ["gcc"],
    "i386": ["i686-linux-gnu-gcc"],
    "mipsel": ["mipsel-linux-gnu-gcc"],
    "mipsel-small": ["mipsel-linux-gnu-gcc", "-specs=%s/musl/musl-gcc.specs" % BUILD],
}
DIALECTS = (["-x", "c", "-std=c99"], ["-x", "c++", "-std=c++20"])


# Whose sources are analysed.
ANALYSED = ("CMakeFiles/sysconfig_objects.dir/", "store/CMakeFiles/store.dir/",
            "scctl/CMakeFiles/scctl.dir/", "scguard/CMakeFiles/scguard.dir/")


def check_format(suite):
    for path in files(*C_FAMILY):
        suite.run(["clang-format", "--dry-run", "-Werror", path], check="format of %s" % path)


# An analysis that passed leaves a file here. Its name is the checksum of everything that was read.
PASSED = LOGS / "analysed"


def check_analysis(suite, is_quick=False):
    """Of all sources, or of those but scctl's, which take most of the time. What has passed is not
    analysed again until the tool, its options, the source, a header or .clang-tidy has other bytes."""
    entries = json.loads((BUILD / "host/compile_commands.json").read_text())
    compiled = {entry["file"]: shlex.split(entry["command"].split(" -o ")[0]) for entry in entries
                if any(" %s" % folder in entry["command"] for folder in ANALYSED
                       if not (is_quick and "scctl" in folder))}
    sources = list(compiled)
    for part in ("core", "store", "scguard") + (() if is_quick else ("scctl",)):
        suite.verdict(any("/%s/" % part in path for path in sources), "sources of %s" % part)
    PASSED.mkdir(exist_ok=True)
    with ThreadPoolExecutor(2) as pool:
        read = dict(zip(sources, pool.map(files_read, sources, compiled.values())))
        tasks = []
        for path, command in compiled.items():
            name = path[len(str(ROOT)) + 1:]
            tasks.append((
                "clang-tidy " + name,
                ["clang-tidy", "--quiet", "-p", "build/host", "--warnings-as-errors=*",
                 "--extra-arg=-Wno-unknown-warning-option", path],
                (version("clang-tidy"), command, read[path], checksum(ROOT / ".clang-tidy"))))
            # gcc 12 means it for C. It follows C++ that has no exceptions, as here, within one source:
            # streams left open are found, descriptors are not watched yet. It sees most without
            # optimisation.
            tasks.append((
                "gcc -fanalyzer " + name,
                [*command, "-O0", "-fanalyzer", "-Werror", "-o", "/dev/null", "-c", path],
                (version(command[0]), read[path])))
            tasks.append((
                "cppcheck " + name,
                ["cppcheck", "--quiet", "--std=c++20", "--enable=warning,performance,portability",
                 "--inline-suppr", "--error-exitcode=1", "-Iinclude", "-I.", path],
                (version("cppcheck"), read[path])))
        tasks.append(("tools/mutate --self-test", [ROOT / "tools/mutate", "--self-test"], None))
        tasks.append(("pyflakes3", ["pyflakes3", *python_scripts()], None))
        tasks.append(("shellcheck", ["shellcheck", "-x", *shell_scripts()], None))
        for (what, *_), (good, said) in zip(tasks, pool.map(analysed, tasks)):
            suite.note(said)
            suite.verdict(good, what)


def analysed(task):
    """Whether the command of a task passes, and what it says. `depends`: all that its verdict depends on
    besides the command; None for what runs each time."""
    _, command, depends = task
    command = [str(word) for word in command]
    passed = depends and PASSED / hashlib.sha256(repr((command, depends)).encode()).hexdigest()
    if passed and passed.exists():
        return True, "passed before, with the same bytes: " + " ".join(command)
    ended = subprocess.run(command, cwd=ROOT, text=True, stdout=subprocess.PIPE,
                           stderr=subprocess.STDOUT)
    if passed and ended.returncode == 0:
        passed.touch()
    return ended.returncode == 0, ended.stdout


def files_read(source, command):
    """Path and checksum of each file that a compilation reads: the source and all headers."""
    rule = output([*command, "-M", source])
    return [(path, checksum(path)) for path in rule.partition(":")[2].split() if path != "\\"]


@functools.cache
def checksum(path):
    with open(path, "rb") as file:
        return hashlib.sha256(file.read()).hexdigest()


@functools.cache
def version(tool):
    return output([tool, "--version"])


def shell_scripts():
    scripts = []
    for path in files("*", "tools/*", "tests/**/*", ".ci/*", "examples/*", "bench/*", "device/**/*"):
        with open(ROOT / path, "rb") as file:
            if file.readline().startswith((b"#!/bin/bash", b"#!/bin/sh")):
                scripts.append(path)
    return scripts


def python_scripts():
    scripts = []
    for path in files("**/*"):
        if not (ROOT / path).is_file() or path.suffix not in ("", ".py"):
            continue
        with open(ROOT / path, "rb") as file:
            line = file.readline()
        if path.suffix == ".py" or (line.startswith(b"#!") and b"python3" in line):
            scripts.append(path)
    return scripts


# Folders in the order in which they may include each other; those of one row never do.
LAYERS = (("include",), ("core",), ("lan", "filter", "rules", "ap", "clients"), ("store",),
          ("scctl", "scguard"))


def check_arrows(suite):
    """Every folder includes itself and the layers above its own."""
    allowed = set()
    for layer in LAYERS:
        for folder in layer:
            for path in files("%s/**/*.h" % folder, "%s/**/*.cc" % folder):
                included = re.findall(r'^#include (?:"(\w+)/|<(sysconfig)/)', (ROOT / path).read_text(), re.M)
                found = {"include" if public else own for own, public in included}
                suite.verdict(found <= allowed | {folder}, "includes of %s" % path,
                              ", ".join(sorted(found - allowed - {folder})))
        allowed |= set(layer)


def check_headers(suite, targets):
    for target in targets:
        for header in files("include/sysconfig/*.h"):
            for dialect in DIALECTS:
                include = "<%s>" % header.relative_to("include")
                suite.run([*COMPILERS[target], *dialect, "-pedantic", "-Wall", "-Wextra", "-Werror",
                           "-fsyntax-only", "-Iinclude", "-include", header, "/dev/null"],
                          check="%s %s %s" % (target, dialect[-1], include))


def check_layout(suite):
    """The layout documents are those of the headers, the golden images those of their history."""
    suite.run([ROOT / "tools/layout_json", "--check"], check="layout.json")
    suite.run([ROOT / "tests/golden/make_images.py", "--check"], check="golden images")
