"""Prints the lines of scctl, scguard and their parts that no test reaches, and how many are reached.
Every line that is not reached stands in tools/coverage.unreached with its reason."""
import pathlib
import sys

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).parent))

from changes import Source
from programs import ROOT, Build
from trials import Reach, Tests, shown

EXPLAINED = ROOT / "tools/coverage.unreached"
LEAST_PERCENT = 95


def named(path, line, sources):
    """A line by its file, its function and its text."""
    if path not in sources:
        sources[path] = Source(path, (ROOT / path).read_text(), True)
    source = sources[path]
    text = source.lines[line - 1]
    place = source.starts[line - 1] + len(text) - len(text.lstrip())
    return "%s %s: %s" % (path, source.structure.definition_at(place)[2], text.strip())


def read_explained():
    """The lines that have a reason, and what is wrong with the list."""
    lines = [line for line in EXPLAINED.read_text().split("\n") if line and line[0] != "#"]
    entries = [line for line in lines if not line.startswith(" ")]
    wrong = ["no reason: " + line for line, after in zip(lines, lines[1:] + [""])
             if not line.startswith(" ") and not after.startswith(" ")]
    wrong += ["stands twice: " + line for line in sorted(set(entries)) if entries.count(line) > 1]
    return set(entries), wrong


def main():
    reach = Reach(Tests(Build(), True))
    reached, count, missed = reach.figure()
    explained, wrong = read_explained()
    wrong += ["fails: " + shown(test) for test in reach.failed]
    sources, seen = {}, set()
    for path, line in missed:
        name = named(path, line, sources)
        seen.add(name)
        print("%s:%d%s: %s" % (path, line, "" if name in explained else " (without a reason)",
                               name.split(": ", 1)[1]))
        if name not in explained:
            wrong.append("no reason: " + name)
    wrong += ["reached, or no line: " + name for name in sorted(explained - seen)]
    percent = 100 * reached / count
    print("scctl and scguard: %.1f %% of lines reached (%d of %d), %d are not" % (
        percent, reached, count, count - reached))
    if percent < LEAST_PERCENT:
        wrong.append("%d %% are to be reached" % LEAST_PERCENT)
    if wrong:
        print("\n".join(["wrong here and in tools/coverage.unreached:", *wrong]), file=sys.stderr)
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
