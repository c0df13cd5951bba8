"""The tests: which there are, which of them reach a line, and whether they notice a change."""
import collections
import hashlib
import json
import os
import pathlib
import re
import signal
import subprocess
import tempfile
import time

from programs import BUILD, LIBRARY, ROOT, build_folder

KEPT = ROOT / "build/mutate"
RUNTIME = pathlib.Path(__file__).with_name("reached.c")
# Programs of the library's that look at something else, which no change of it can break.
BESIDES = ("layout_test", "abi_test")
# What a test may take beyond what it takes on the unchanged code.
SPARE_SECONDS = 30

# A test that can be run by itself: a script, or a test of a program, "" for all of it.
Test = collections.namedtuple("Test", "program name")
Verdict = collections.namedtuple("Verdict", "test seconds hung said")


def shown(test):
    return test.program + (" " + test.name if test.name else "")


class Tests:
    """The tests of the library, by programs, or those of the tools, one by one."""

    def __init__(self, build, of_tools):
        self.build, self.of_tools = build, of_tools
        listed = json.loads(subprocess.run(
            ["ctest", "--test-dir", str(BUILD), "--show-only=json-v1"], check=True, text=True,
            stdout=subprocess.PIPE).stdout)["tests"]
        # Scripts that run scctl: transcripts, and the reader of its schema.
        self.scripts = {test["name"]: test["command"] for test in listed
                        if any(word.endswith(("/scctl_test.sh", "/schema_test.py"))
                               for word in test["command"])}
        ours = {build.sources[item] for tool in build.tools for item in build.link(tool)[1]
                if build.sources[item].parts[0] != "core"}
        # Programs that are linked with a part of the tools, compiled for them.
        self.linked = [test for test in build.tests
                       if ours & {build.sources[item] for item in build.link(test)[1]}]
        runs_tools = [test for test in build.tests
                      if "test_programs.dir" in " ".join(build.link(test)[0])]
        self.tests = []
        if of_tools:
            self.tests += [Test(name, "") for name in self.scripts]
            for program in sorted({*self.linked, *runs_tools}):
                self.tests += [Test(program, name) for name in self.names_in(program)]
        else:
            self.tests += [Test(program, "") for program in build.tests
                           if program not in runs_tools + self.linked
                           and program.split("/")[-1] not in BESIDES]

    @staticmethod
    def names_in(program):
        names, suite = [], ""
        for line in subprocess.run([BUILD / program, "--gtest_list_tests"], check=True, text=True,
                                   stdout=subprocess.PIPE).stdout.splitlines():
            line = line.split("  #")[0].rstrip()
            if re.fullmatch(r"[\w/]+\.", line):
                suite = line
            elif line.startswith("  ") and suite:
                names.append(suite + line.strip())
        return names

    def run(self, tests, folder, seconds, variables=None):
        """Runs tests of one program, in a build folder. None when all pass, or what noticed."""
        environment = dict(os.environ, LD_LIBRARY_PATH=str(folder), SC_MUTANT=str(folder),
                           **variables or {})
        environment.pop("GTEST_OUTPUT", None)
        for tool in self.build.tools:
            environment[tool.split("/")[-1].upper()] = str(folder / tool)
        program = tests[0].program
        if program in self.scripts:
            command = [word.replace(str(BUILD), str(folder)) for word in self.scripts[program]]
        else:
            command = [str(folder / program), "--gtest_fail_fast", "--gtest_brief=1"]
            if tests[0].name:
                command.append("--gtest_filter=" + ":".join(test.name for test in tests))
        # What runs wild fills neither disk nor memory.
        command = ["prlimit", "--fsize=%d" % 2**30, "--data=%d" % 2**32, "--core=0", *command]
        start = time.monotonic()
        with tempfile.TemporaryFile() as said:
            process = subprocess.Popen(command, cwd=ROOT if program in self.scripts else folder,
                                       env=environment, stdin=subprocess.DEVNULL, stdout=said,
                                       stderr=subprocess.STDOUT)
            hung = False
            try:
                process.wait(seconds)
            except subprocess.TimeoutExpired:
                hung = True
            if hung or process.returncode != 0:
                end_processes(folder)
            process.kill()
            process.wait()
            if not hung and process.returncode == 0:
                return None
            said.seek(max(0, said.seek(0, os.SEEK_END) - 100_000))
            text = said.read().decode(errors="replace")
        failed = re.search(r"^\[  FAILED  \] ([\w./]+)", text, re.M)
        started = [test for test in tests if failed and test.name == failed[1]]
        return Verdict((started or [Test(program, failed[1] if failed else "")])[0],
                       time.monotonic() - start, hung, text)

    def reading(self, tests):
        """Tests in runs: those of one program are one."""
        runs = collections.defaultdict(list)
        for test in tests:
            runs[test.program].append(test)
        return list(runs.values())


def end_processes(folder):
    """Kills what a test left: its processes know by their environment whose they are."""
    mark = b"SC_MUTANT=" + str(folder).encode() + b"\0"
    for process in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            if mark in (process / "environ").read_bytes():
                os.kill(int(process.name), signal.SIGKILL)
        except OSError:
            continue


def fingerprint(folders):
    """Of the files that decide what tests say."""
    told = hashlib.sha256()
    for folder in folders:
        for path in sorted((ROOT / folder).rglob("*")):
            if path.is_file() and not path.is_symlink():
                told.update(str(path.relative_to(ROOT)).encode() + b"\0")
                told.update(hashlib.sha256(path.read_bytes()).digest())
    return told.hexdigest()


class Reach:
    """Which tests reach which line. Where the tests or the sources have changed it is found out anew,
    by running each test once with programs that note what they run."""

    def __init__(self, tests, note=lambda text: None):
        self.tests = tests
        self.lines = {}  # path -> {line: [places of tests]}
        self.seconds = {}
        self.failed = []  # tests that may have been broken off before they reached what they reach
        folders = ["include", "core", "lan", "filter", "rules", "ap", "clients", "tests", "docs/man"]
        folders += sorted({path.parts[0] for path in tests.build.files_of(True)}) \
            if tests.of_tools else []
        self.mark = fingerprint(folders)
        kept = KEPT / ("reach-tools.json" if tests.of_tools else "reach-library.json")
        if kept.is_file():
            told = json.loads(kept.read_text())
            if told["mark"] == self.mark and told["tests"] == [list(t) for t in tests.tests]:
                self.lines = {path: {int(line): reached for line, reached in lines.items()}
                              for path, lines in told["lines"].items()}
                self.seconds = {test: took for test, took in zip(tests.tests, told["seconds"])}
                self.failed = [Test(*test) for test in told["failed"]]
                return
        self.find_out(note)
        KEPT.mkdir(parents=True, exist_ok=True)
        kept.write_text(json.dumps({
            "mark": self.mark, "tests": tests.tests, "lines": self.lines,
            "seconds": [self.seconds[test] for test in tests.tests], "failed": self.failed}))

    def find_out(self, note):
        build = self.tests.build
        programs = [*build.tools, *self.tests.linked] if self.tests.of_tools else [LIBRARY]
        wanted = {str(path) for path in build.files_of(self.tests.of_tools)}
        with tempfile.TemporaryDirectory(prefix="sysconfig-reach.") as name:
            base = pathlib.Path(name)
            made, blocks = {}, {}
            for number, program in enumerate(programs):
                made[program] = base / ("program-%d" % number)
                self.make(base, number, program, made[program])
                blocks[program] = blocks_of(made[program], wanted)
            folder = base / "build"
            build_folder(folder, made)
            told = base / "reached"
            told.mkdir(mode=0o777)
            for test in self.tests.tests:
                for number, program in enumerate(programs):
                    file = told / str(number)
                    file.write_bytes(bytes(made[program].stat().st_size))
                    file.chmod(0o666)
                told.chmod(0o777)
                base.chmod(0o755)
                start = time.monotonic()
                failed = self.tests.run([test], folder, 1000, {"SC_REACHED": str(told)})
                self.seconds[test] = time.monotonic() - start
                if failed:
                    note("%s fails where what is run is noted" % shown(test))
                    self.failed.append(test)
                place = self.tests.tests.index(test)
                for number, program in enumerate(programs):
                    hits = (told / str(number)).read_bytes()
                    for block, lines in blocks[program].items():
                        for path, line in lines:
                            reached = self.lines.setdefault(path, {}).setdefault(line, [])
                            if hits[block] and place not in reached:
                                reached.append(place)

    def make(self, base, number, program, to):
        build = self.tests.build
        runtime = base / ("reached-%d.o" % number)
        subprocess.run(["cc", "-O1", "-fPIC", "-DSC_PROGRAM=\"%d\"" % number, "-c", RUNTIME, "-o",
                        runtime], check=True)
        objects = {}
        for item in build.link(program)[1]:
            if build.sources[item].parts[0] == "tests":
                continue
            objects[item] = base / ("%d-%s" % (number, item.replace("/", "_")))
            done = build.compile(item, objects[item], ["-g", "-fsanitize-coverage=trace-pc"])
            if done.returncode != 0:
                raise RuntimeError(done.stderr.decode())
        done = build.relink(program, to, objects, [runtime])
        if done.returncode != 0:
            raise RuntimeError(done.stderr.decode())

    def of(self, path, lines):
        """The tests that reach one of these lines, and those that failed too early to tell; None
        where no line is code."""
        known = self.lines.get(str(path), {})
        reached = [known[line] for line in lines if line in known]
        if not reached:
            return None
        return {self.tests.tests[place] for places in reached for place in places} | set(self.failed)

    def figure(self):
        """Lines that are reached, all lines, and those that are not."""
        missed = [(path, line) for path, lines in sorted(self.lines.items())
                  for line, reached in sorted(lines.items()) if not reached]
        count = sum(len(lines) for lines in self.lines.values())
        return count - len(missed), count, missed


def blocks_of(program, wanted):
    """For each place that is noted, the lines that are run with it."""
    blocks, current, waiting = {}, None, set()
    line, called = None, False
    listing = subprocess.run(["objdump", "-d", "-l", "--no-show-raw-insn", program], check=True,
                             text=True, errors="replace", stdout=subprocess.PIPE).stdout
    for text in listing.split("\n"):
        place = re.match(r"(/\S+):(\d+)(?: \(discriminator \d+\))?$", text)
        if place:
            path = pathlib.Path(os.path.normpath(place[1]))
            known = ROOT in path.parents and str(path.relative_to(ROOT))
            line = (known, int(place[2])) if known in wanted else None
            continue
        instruction = re.match(r"\s*([0-9a-f]+):\t(.*)", text)
        if not instruction:
            if re.match(r"[0-9a-f]+ <", text):
                current, waiting, line = None, set(), None
            continue
        if called:
            current = int(instruction[1], 16)
            blocks[current] = set(called[0]) | waiting
            waiting, called = set(), False
        if "<__sanitizer_cov_trace_pc" in instruction[2]:
            called = ([line] if line else [],)
        elif line and current is None:
            waiting.add(line)
        elif line:
            blocks[current].add(line)
    return {block: lines for block, lines in blocks.items() if lines}
