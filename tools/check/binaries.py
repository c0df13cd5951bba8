"""Checks that read the built library: exports, needed libraries, sections, sizes."""

import collections
import csv
import re

from suite import BUILD, ROOT, output

EXPORTS = ROOT / "tests/golden/exports.txt"
SIZES = ROOT / "tests/golden/size_baseline.csv"

# The library built for size, whose sections are compared with the baseline.
SIZED_TARGETS = ("mipsel", "mipsel-small")
# Growth of a section that is let pass: 1 %, or a few instructions where 1 % is less than that.
GROWTH_PERCENT = 1
GROWTH_BYTES = 16

C_LIBRARY = {"host": "libc.so.6", "i386": "libc.so.6", "mipsel": "libc.so.6",
             "mipsel-small": "libc.so"}
POINTER_SIZE = {"host": 8, "i386": 4, "mipsel": 4, "mipsel-small": 4}

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


def check_library(suite, targets):
    golden = EXPORTS.read_text().split()
    suite.verdict(golden == sorted(set(golden)), "exports.txt is sorted, each name once")
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
        # One entry: the compiler's own frame_dummy.
        start = sum(s.size for s in sections(library)
                    if re.match(r"\.(init_array|ctors|preinit_array)", s.name))
        suite.verdict(start == POINTER_SIZE[target], target + ": no static constructors",
                      "%d bytes of start-up entries" % start)


def measured_sizes():
    return {(target, section.name): section.size
            for target in SIZED_TARGETS
            for section in sections(BUILD / target / "libsysconfig.so")
            if section.allocated and section.size}


def check_sizes(suite):
    with open(SIZES, newline="") as file:
        baseline = {(row["target"], row["section"]): int(row["bytes"])
                    for row in csv.DictReader(file)}
    measured = measured_sizes()
    for key in sorted(baseline.keys() | measured.keys()):
        was, now = baseline.get(key, 0), measured.get(key, 0)
        limit = was + max(was * GROWTH_PERCENT // 100, GROWTH_BYTES)
        suite.verdict(now <= limit, "%s %s: %d bytes, baseline %d" % (*key, now, was),
                      "grew; if it is worth it, run tools/accept_sizes")
    for target in SIZED_TARGETS:
        was = sum(size for key, size in baseline.items() if key[0] == target)
        now = sum(size for key, size in measured.items() if key[0] == target)
        suite.verdict(now <= was + was * GROWTH_PERCENT // 100,
                      "%s in all: %d bytes, baseline %d" % (target, now, was),
                      "grew; if it is worth it, run tools/accept_sizes")


def accept_sizes():
    with open(SIZES, "w", newline="") as file:
        rows = csv.writer(file, lineterminator="\n")
        rows.writerow(("target", "section", "bytes"))
        rows.writerows((*key, size) for key, size in sorted(measured_sizes().items()))
