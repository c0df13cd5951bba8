"""Checks that read the built library: exports, needed libraries, sections."""

import collections
import csv
import re

from suite import BUILD, ROOT, output

EXPORTS = ROOT / "tests/golden/exports.txt"
IMPORTS = ROOT / "tests/golden/imports.csv"

C_LIBRARY = {"host": "libc.so.6", "i386": "libc.so.6", "mipsel": "libc.so.6",
             "mipsel-small": "libc.so"}

# Anything of ours in these would be written or relocated at load time, or run before main.
FORBIDDEN = re.compile(r"\.(data|bss|tdata|tbss|sdata|sbss|init_array|ctors|preinit_array)(\.|$)")

Section = collections.namedtuple("Section", "name size allocated")


def sections(path):
    """The sections of an object, or of each member of an archive."""
    found = []
    for line in output(["readelf", "--section-headers", "--wide", path]).splitlines():
        # [Nr] Name Type Address Off Size ES Flg Lk Inf Al; an empty Flg leaves ten columns.
        match = re.match(r"\s*\[ *\d+\] (\.\S+)\s+\S+\s+\S+\s+\S+\s+(\S+)\s+\S+\s+([A-Zop]*)", line)
        if match:
            name, size, flags = match.groups()
            found.append(Section(name, int(size, 16), "A" in flags))
    return found


def visible(archive):
    """The names that an archive defines for a program's other parts, and a library that is made of
    it would export."""
    found = set()
    for line in output(["readelf", "--symbols", "--wide", archive]).splitlines():
        # Num: Value Size Type Bind Vis Ndx Name; others of MIPS stand before the section.
        match = re.match(r"\s*\d+: \S+\s+\S+\s+\S+\s+(?:GLOBAL|WEAK|UNIQUE)\s+(\S+)\s+"
                         r"(?:\[.*\]\s+)?(\S+)\s+(\S+)", line)
        if match and match[2] != "UND" and match[1] not in ("HIDDEN", "INTERNAL"):
            found.add(match[3])
    return found


def check_library(suite, targets):
    golden = EXPORTS.read_text().split()
    suite.verdict(golden == sorted(set(golden)), "exports.txt is sorted, each name once")
    with open(IMPORTS, newline="") as file:
        imports = {row["name"] for row in csv.DictReader(file)}
    all_needed = set()
    for target in targets:
        library = BUILD / target / "libsysconfig.so"
        archive = BUILD / target / "libsysconfig.a"
        if not suite.verdict(library.exists() and archive.exists(), target + ": library is there"):
            continue

        exported = [line.split()[-1].split("@")[0] for line in
                    output(["nm", "--dynamic", "--defined-only", library]).splitlines()
                    if " A " not in line]  # the version node is no symbol of the library
        wrong = sorted(set(golden).symmetric_difference(exported))
        suite.verdict(not wrong, "%s: exports are the %d names listed" % (target, len(golden)),
                      "differs in " + " ".join(wrong))

        needed = {line.split()[-1].split("@")[0] for line in
                  output(["nm", "--dynamic", "--undefined-only", library]).splitlines()}
        suite.verdict(needed <= imports, target + ": calls into the C library are listed",
                      "imports.csv lacks " + " ".join(sorted(needed - imports)))
        all_needed |= needed

        shown = visible(archive)
        wrong = sorted(shown.symmetric_difference(golden))
        suite.verdict(not wrong, target + ": the static library hides all but the exports",
                      "differs in " + " ".join(wrong))

        dynamic = output(["readelf", "--dynamic", library])
        needed = re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic)
        suite.verdict(needed == [C_LIBRARY[target]], target + ": needs the C library alone",
                      "needs " + " ".join(needed))
        soname = re.findall(r"\(SONAME\).*\[(.*)\]", dynamic)
        suite.verdict(soname == ["libsysconfig.so.1"], target + ": soname", str(soname))
        suite.verdict(not re.search(r"\((RPATH|RUNPATH|TEXTREL)\)", dynamic),
                      target + ": no search path, no text relocations")

        members = sections(archive)
        suite.verdict(any(s.name.startswith(".text") and s.size for s in members),
                      target + ": archive holds code")
        ours = [s for s in members if FORBIDDEN.match(s.name) and s.size]
        suite.verdict(not ours, target + ": no writable, relocated or start-up data of ours",
                      " ".join("%s:%d" % (s.name, s.size) for s in ours))
        written = [s.name for s in sections(library) if FORBIDDEN.match(s.name) and s.size]
        suite.verdict(not written, target + ": nor of the compiler's", " ".join(written))
        stack = re.findall(r"GNU_STACK\s.*\s(\S+)\s+\S+$",
                           output(["readelf", "--program-headers", "--wide", library]), re.M)
        suite.verdict(stack == ["RW"], target + ": asks for no executable stack", str(stack))
    if len(targets) == len(C_LIBRARY):
        suite.verdict(imports == all_needed, "imports.csv lists what is called",
                      "and besides " + " ".join(sorted(imports - all_needed)))
