"""The library and the tools as build/host makes them, made again with one source changed."""
import functools
import json
import os
import pathlib
import re
import shlex
import subprocess

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = ROOT / "build/host"
LIBRARY = "libsysconfig.so.1.0.0"
LIBRARY_FOLDERS = ("core", "lan", "filter", "rules", "ap", "clients")


def output(*command):
    return subprocess.run([str(word) for word in command], cwd=BUILD, check=True, text=True,
                          stdout=subprocess.PIPE).stdout


class Build:
    """What build/host is made of: for each object its command and what it includes, for each program
    the command that links it."""

    def __init__(self):
        self.commands, self.sources = {}, {}
        for entry in json.loads((BUILD / "compile_commands.json").read_text()):
            made = re.search(r" -o (\S+\.o) ", entry["command"])
            source = pathlib.Path(entry["file"])
            if made and ROOT in source.parents:
                self.commands[made[1]] = shlex.split(entry["command"])
                self.sources[made[1]] = source.relative_to(ROOT)
        self.includes = self.read_includes()
        executables = re.findall(r"^(\S+): \w+_EXECUTABLE_LINKER__", output("ninja", "-t", "targets",
                                                                            "all"), re.M)
        self.tools = [name for name in executables if name.split("/")[-1] in ("scctl", "scguard")]
        self.tests = [name for name in executables if re.fullmatch(r"tests/\w+_test", name)]

    def read_includes(self):
        """The repository's files that each object is made of."""
        found = {}
        for block in output("ninja", "-t", "deps").split("\n\n"):
            head, *files = block.split("\n")
            paths = [pathlib.Path(BUILD, file.strip()) for file in files]
            found[head.split(":")[0]] = {path.relative_to(ROOT) for path in paths
                                         if ROOT in path.parents and BUILD not in path.parents}
        return found

    @functools.cache
    def link(self, program):
        """The words of the command that links it, and the objects among them."""
        line = output("ninja", "-t", "commands", "-s", program).strip().removeprefix(": && ")
        words = []
        for word in shlex.split(line.split(" && ")[0]):
            if word.endswith(".a") and not word.startswith("/") and (BUILD / word).exists():
                words += self.link_archive(word)
            else:
                words.append(word)
        return words, [word for word in words if word in self.commands]

    def link_archive(self, archive):
        words = shlex.split(output("ninja", "-t", "commands", "-s", archive))
        return [word for word in words if word in self.commands]

    def files_of(self, of_tools):
        """The files that changes are made to."""
        programs = self.tools if of_tools else [LIBRARY]
        objects = {item for program in programs for item in self.link(program)[1]}
        included = set().union(*(self.includes[item] for item in objects))
        if of_tools:
            return sorted(path for path in included if path.parts[0] not in (
                *LIBRARY_FOLDERS, "include") and path.suffix in (".cc", ".c", ".h"))
        # Of the public headers only the one that holds keys and codes: layouts have tests of their own.
        return sorted(path for path in included if path.parts[0] in LIBRARY_FOLDERS or
                      path == pathlib.Path("include/sysconfig/layout.h"))

    def objects_of(self, path, programs):
        """Of each program the objects that are made of a file."""
        found = {}
        for program in programs:
            objects = [item for item in self.link(program)[1] if path in self.includes[item]]
            if objects:
                found[program] = objects
        return found

    def compile(self, item, to, options, folder=None):
        """An object, of the sources in another folder if any. Only a function that ends without its
        result is an error; no other warning is of interest."""
        words, skip = [], False
        for word in self.commands[item]:
            if skip or word in ("-MD", "-MMD", "-g") or re.match(r"-W|-O\w$", word):
                skip = False
            elif word in ("-o", "-MF", "-MT", "-MQ"):
                skip = True
            elif folder and not word.startswith(str(BUILD)):
                words.append(re.sub(re.escape(str(ROOT)) + r"(?=/|$)", str(folder), word))
            else:
                words.append(word)
        return subprocess.run([*words, "-O0", "-Werror=return-type", *options, "-o", str(to)],
                              cwd=BUILD, capture_output=True)

    def relink(self, program, to, changed, options=()):
        """A program, with other objects in place of some of its own."""
        words, _ = self.link(program)
        words = [str(changed.get(word, word)) for word in words]
        words[words.index("-o") + 1] = str(to)
        return subprocess.run([*words, *map(str, options)], cwd=BUILD, capture_output=True)


def stand_in(folder, path, text):
    """A folder that looks like the repository with one file changed."""
    path = pathlib.Path(path)
    here, there = folder, ROOT
    here.mkdir()
    for part in path.parts:
        for entry in os.scandir(there):
            if entry.name not in (part, ".git", "build"):
                os.symlink(entry.path, here / entry.name)
        here, there = here / part, there / part
        if part != path.name:
            here.mkdir()
    here.write_text(text)


def build_folder(folder, programs):
    """A folder that looks like build/host with these programs, {name: path}, in place of its own."""
    folder.mkdir()
    places = {pathlib.Path(name).parent for name in programs}
    for place in sorted(places | {pathlib.Path()}):
        (folder / place).mkdir(parents=True, exist_ok=True)
        for entry in os.scandir(BUILD / place):
            name = place / entry.name
            if str(name) not in programs and not any(name in (p, *p.parents) for p in places):
                os.symlink(entry.path, folder / name)
    for name, path in programs.items():
        os.symlink(path, folder / name)
        # Programs are linked with the name that the library gives itself.
        if name == LIBRARY:
            (folder / "libsysconfig.so.1").unlink(missing_ok=True)
            os.symlink(path, folder / "libsysconfig.so.1")
