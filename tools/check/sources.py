"""Checks that read the sources: format, static analysis, public headers."""

import json
import re
import shlex
import subprocess
from concurrent.futures import ThreadPoolExecutor

from suite import BUILD, ROOT, files

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


def check_analysis(suite, is_quick=False):
    """Of all sources, or of those but scctl's, which take most of the time."""
    entries = json.loads((BUILD / "host/compile_commands.json").read_text())
    compiled = {entry["file"]: entry["command"] for entry in entries
                if any(" %s" % folder in entry["command"] for folder in ANALYSED
                       if not (is_quick and "scctl" in folder))}
    sources = list(compiled)
    for part in ("core", "store", "scguard") + (() if is_quick else ("scctl",)):
        suite.verdict(any("/%s/" % part in path for path in sources), "sources of %s" % part)
    commands = {
        "clang-tidy %s" % path[len(str(ROOT)) + 1:]:
            ["clang-tidy", "--quiet", "-p", "build/host", "--warnings-as-errors=*",
             "--extra-arg=-Wno-unknown-warning-option", path]
        for path in sources
    }
    # gcc 12 means it for C. It follows C++ that has no exceptions, as here, within one source: streams
    # left open are found, descriptors are not watched yet. It sees most without optimisation.
    for path, command in compiled.items():
        commands["gcc -fanalyzer %s" % path[len(str(ROOT)) + 1:]] = [
            *shlex.split(command.split(" -o ")[0]), "-O0", "-fanalyzer", "-Werror",
            "-o", "/dev/null", "-c", path]
    commands["cppcheck"] = [
        "cppcheck", "--quiet", "--std=c++20", "--enable=warning,performance,portability",
        "--inline-suppr", "--error-exitcode=1", "-Iinclude", "-I.", *sources]
    commands["tools/mutate --self-test"] = [ROOT / "tools/mutate", "--self-test"]
    commands["pyflakes3"] = ["pyflakes3", *python_scripts()]
    commands["shellcheck"] = ["shellcheck", "-x", *shell_scripts()]

    def run(command):
        return subprocess.run([str(word) for word in command], cwd=ROOT, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT)

    with ThreadPoolExecutor(2) as pool:
        for what, result in zip(commands, pool.map(run, commands.values())):
            suite.note(result.stdout)
            suite.verdict(result.returncode == 0, what)


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
