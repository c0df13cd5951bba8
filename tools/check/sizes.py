"""Sizes of the library and the tools on MIPS beside their baseline: the report, the check, and a new
baseline."""

import collections
import csv
import json
import pathlib
import re
import sys
import tempfile

from binaries import sections
from suite import BUILD, ROOT, output

BASELINE = ROOT / "tests/golden/size_baseline.csv"

SIZED_TARGETS = ("mipsel", "mipsel-small")
# Files, functions and stack frames are those of the first: the other one has the same sources.
DETAILED_TARGET = SIZED_TARGETS[0]

# Growth that is let pass: 1 %, or a few instructions where 1 % is less than that.
GROWTH_PERCENT = 1
GROWTH_BYTES = 16

# A row of the baseline is a target, one of these parts, a name, and bytes:
#   section   of the library, as far as it is loaded
#   stripped  the file of the library, or of a tool, without what "strip" removes
#   file      code and constants of a source
#   function  code of a function, "file name"; names of constants are as symbols have them
#   frame     what a function takes from the stack
#   largest   the largest frame of a tool, whose functions stand in no row
# Sections, stripped files and largest frames are held to the limits; the others tell where.
LIMITED = ("section", "stripped", "largest")

# What the tools may take of a flash, whatever the baseline says.
TOOLS = {"scctl": 200 * 1024, "scguard": 20 * 1024}
# Where the parts lie that both are made of.
PARTS = "store"


def measure():
    sizes = {}
    for target in SIZED_TARGETS:
        library = BUILD / target / "libsysconfig.so"
        for section in sections(library):
            if section.allocated and section.size:
                sizes[target, "section", section.name] = section.size
        sizes[target, "stripped", library.name] = stripped_size(library)
        for tool in TOOLS:
            found = [path for path in (BUILD / target).glob("*/" + tool) if path.is_file()]
            if len(found) != 1:
                raise RuntimeError("%s of %s is not built" % (tool, target))
            sizes[target, "stripped", tool] = stripped_size(found[0])
            sizes[target, "largest", tool] = largest_frame_of(tool, BUILD / target)
    for source, compiled in objects(DETAILED_TARGET):
        of_file = [s.size for s in sections(compiled)
                   if re.match(r"\.(text|rodata)(\.|$)", s.name)]
        sizes[DETAILED_TARGET, "file", source] = sum(of_file)
        for part, names in (("function", symbols(compiled)), ("frame", frames(source, compiled))):
            for name, size in names.items():
                sizes[DETAILED_TARGET, part, "%s %s" % (source, name)] = size
    return sizes


def stripped_size(program):
    with tempfile.NamedTemporaryFile() as stripped:
        output(["mipsel-linux-gnu-strip", "-o", stripped.name, program])
        return pathlib.Path(stripped.name).stat().st_size


def largest_frame_of(tool, build):
    """Of the sources that the linker has taken."""
    symbols = output(["mipsel-linux-gnu-readelf", "-sW", build / tool / tool])
    linked = set(re.findall(r"\bFILE\b.* (\S+)$", symbols, re.M))
    notes = [*build.glob("*/CMakeFiles/%s.dir/**/*.su" % tool), *(build / PARTS).glob("**/*.su")]
    return max(int(line.split("\t")[1]) for note in notes if note.stem in linked
               for line in note.read_text().splitlines())


def objects(target):
    """Each source of the library with its object file."""
    for entry in json.loads((BUILD / target / "compile_commands.json").read_text()):
        compiled = re.search(r" -o (CMakeFiles/sysconfig_objects\.dir/\S+)", entry["command"])
        if compiled:
            source = pathlib.Path(entry["file"]).relative_to(ROOT)
            yield str(source), BUILD / target / compiled.group(1)


def symbols(compiled):
    """Functions and constants, each place once whatever the number of its names."""
    places = {}
    for line in output(["readelf", "--symbols", "--wide", "--demangle", compiled]).splitlines():
        # Num: Value Size Type Bind Vis Ndx Name
        match = re.match(r"\s*\d+: (\S+)\s+(\d+) (FUNC|OBJECT)\s+\S+\s+\S+\s+(\d+) (.+)", line)
        if match:
            value, size, _, section, name = match.groups()
            places[section, value] = (plain(name), int(size))
    return summed(places.values(), sum)


def frames(source, compiled):
    """Functions that use the stack; the compiler notes them beside the object."""
    lines = (ROOT / source).read_text().splitlines()
    found = []
    for note in compiled.with_suffix(".su").read_text().splitlines():
        place, size, _ = note.split("\t")
        _, row, _, name = place.split(":", 3)
        # It writes what follows the last dot, of which clones and arguments without names have some.
        if re.match(r"\)|(constprop|isra|part|cold)\b", name):
            name = re.search(r"[\w:~]+\(", lines[int(row) - 1]).group()
        if int(size):
            found.append((plain(name), int(size)))
    return summed(found, max)


def plain(name):
    """A function's name without types, as symbols and the compiler's notes have it in common."""
    name = re.sub(r"\(anonymous namespace\)::|\{anonymous\}::|sc::", "", name)
    name = re.sub(r"\[(clone|with) [^]]*\]", "", name).strip()
    return name.split("(")[0].split()[-1]


def summed(pairs, operation):
    """Functions of one name are one row."""
    found = collections.defaultdict(list)
    for name, size in pairs:
        found[name].append(size)
    return {name: operation(size) for name, size in found.items()}


def read_baseline():
    with open(BASELINE, newline="") as file:
        return {(row["target"], row["part"], row["name"]): int(row["bytes"])
                for row in csv.DictReader(file)}


def accept():
    with open(BASELINE, "w", newline="") as file:
        rows = csv.writer(file, lineterminator="\n")
        rows.writerow(("target", "part", "name", "bytes"))
        rows.writerows((*key, size) for key, size in sorted(measure().items()))


def total(sizes, target):
    return sum(size for key, size in sizes.items() if key[:2] == (target, "section"))


def largest_frame(sizes):
    """Its size, and whose it is."""
    return max((size, name) for (_, part, name), size in sizes.items() if part == "frame")


def check_sizes(suite):
    baseline, measured = read_baseline(), measure()

    def within(what, now, was, spare):
        suite.verdict(now <= was + max(was * GROWTH_PERCENT // 100, spare),
                      "%s: %d bytes, baseline %d" % (what, now, was),
                      "grew; if it is worth it, run tools/size_report --accept")

    for key in sorted(baseline.keys() | measured.keys()):
        if key[1] in LIMITED:
            within(" ".join(key), measured.get(key, 0), baseline.get(key, 0), GROWTH_BYTES)
    for target in SIZED_TARGETS:
        within(target + " in all", total(measured, target), total(baseline, target), 0)
        for tool, limit in TOOLS.items():
            size = measured[target, "stripped", tool]
            suite.verdict(size <= limit, "%s of %s: %d bytes, at most %d" % (tool, target, size, limit))
    within("largest frame", largest_frame(measured)[0], largest_frame(baseline)[0], 0)


NAMED = {"stripped": "%s, stripped", "largest": "%s, largest frame"}


def report():
    baseline, measured = read_baseline(), measure()
    for target in SIZED_TARGETS:
        for none in (".data", ".bss"):
            measured.setdefault((target, "section", none), 0)

    def line(what, now, was, frame=""):
        change = "%+d" % (now - was) if now != was else ""
        print("  %-58s %6d %7s %6s" % (what, now, change, frame))

    for target in SIZED_TARGETS:
        print("%-60s %6s %7s" % (target, "bytes", "change"))
        for part in LIMITED:
            keys = {key for key in baseline.keys() | measured.keys() if key[:2] == (target, part)}
            for key in sorted(keys, key=lambda key: -measured.get(key, 0)):
                line(NAMED.get(part, "%s") % key[2], measured.get(key, 0), baseline.get(key, 0))
            if part == "section":
                line("in all", total(measured, target), total(baseline, target))
        print()

    print("%-60s %6s %7s %6s" % (DETAILED_TARGET + " by file", "bytes", "change", "frame"))
    both = {key[1:]: (measured.get(key, 0), baseline.get(key, 0))
            for key in baseline.keys() | measured.keys() if key[0] == DETAILED_TARGET}
    for (part, source), sizes in sorted(both.items(), key=lambda entry: -entry[1][0]):
        if part != "file":
            continue
        line(source, *sizes)
        names = {name for part, name in both
                 if part in ("function", "frame") and name.startswith(source + " ")}
        for name in sorted(names, key=lambda name: -both.get(("function", name), (0, 0))[0]):
            line("  " + name[len(source) + 1:], *both.get(("function", name), (0, 0)),
                 both.get(("frame", name), ("", 0))[0])
    print("\nlargest frame: %d bytes, %s" % largest_frame(measured))
    print("largest frame of the baseline: %d bytes, %s" % largest_frame(baseline))


if __name__ == "__main__":
    accept() if "--accept" in sys.argv[1:] else report()
