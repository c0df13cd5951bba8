"""Where the page's data come from: scctl on this machine, on another one by ssh, or on archives."""

import json
import os
import pathlib
import re
import shlex
import shutil
import signal
import subprocess
import sys
import threading
import time

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent
LONGEST_CALL = 30  # seconds
LONGEST_DIFF = 500  # lines that are passed on


class Fault(Exception):
    """What a user is told, in one line."""


def find_scctl(ended):
    """The path of scctl: $SCCTL, PATH or the newest of the build folders. In the source tree it is built
    when there is none."""
    named = os.environ.get("SCCTL")
    found = shutil.which(named) if named else shutil.which("scctl")
    if named and not found:
        raise Fault("SCCTL=%s is no program" % named)
    if found:
        return os.path.abspath(found)
    if not (ROOT / "CMakeLists.txt").exists():
        raise Fault("there is no scctl in PATH; install sysconfig-tools or set SCCTL")
    built = sorted(ROOT.glob("build/*/scctl/scctl"), key=built_at)
    built = [path for path in built if runs(path)]
    return str(built[-1]) if built else build_scctl(ended)


def built_at(path):
    """A build may be going on, which replaces it."""
    try:
        return path.stat().st_mtime
    except OSError:
        return 0.0


def runs(path):
    """Builds for other machines are in the build folder, too."""
    try:
        return subprocess.run([path, "--version"], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL).returncode == 0
    except OSError:
        return False


def build_scctl(ended):
    print("scpage: building scctl ...", file=sys.stderr, flush=True)
    build = ROOT / "build/demo"
    build.mkdir(parents=True, exist_ok=True)
    log = build / "build.log"
    for command in ([ROOT / "tools/setup.sh", "demo"],
                    ["cmake", "-S", ROOT, "-B", build, "-DSYSCONFIG_EXAMPLES=ON",
                     "-DCMAKE_BUILD_TYPE=Release"],
                    ["cmake", "--build", build, "--target", "scctl", "--parallel", "2"]):
        with open(log, "wb") as file:
            child = subprocess.Popen([str(word) for word in command], stdin=subprocess.DEVNULL,
                                     stdout=file, stderr=subprocess.STDOUT, start_new_session=True)
        while child.poll() is None:
            if ended.wait(0.1):
                os.killpg(child.pid, signal.SIGTERM)
                child.wait()
                raise Fault("ended while scctl was built")
        if child.returncode != 0:
            sys.stderr.write(log.read_text(errors="replace")[-3000:])
            raise Fault("the build of scctl failed")
    return str(build / "scctl/scctl")


class Runner:
    """Runs scctl. Every program that it starts has ended when stop() returns."""

    def __init__(self, program):
        self._program = program
        self._lock = threading.Lock()
        self._children = set()
        self._stopped = False
        self._free = threading.Semaphore(4)

    def command(self, calls):
        """The command for one call or several calls of scctl."""
        (words,) = calls
        return [self._program, *words]

    def start(self, words, stdin=subprocess.DEVNULL):
        return self._start(self.command([words]), stdin)

    def _start(self, command, stdin):
        with self._lock:
            if self._stopped:
                raise Fault("scpage ends")
            try:
                child = subprocess.Popen(command, stdin=stdin, stdout=subprocess.PIPE,
                                         stderr=subprocess.PIPE)
            except OSError as error:
                raise Fault("%s: %s" % (command[0], error.strerror)) from None
            self._children.add(child)
            return child

    def end(self, child):
        """Ends a child that start() returned, if it has not ended."""
        if child.poll() is None:
            child.terminate()
        try:
            child.wait(2)
        except subprocess.TimeoutExpired:
            child.kill()
            child.wait()
        child.stdout.close()
        child.stderr.close()
        with self._lock:
            self._children.discard(child)

    def call(self, *words, given=None):
        """Exit status, standard output and standard error of scctl with these words."""
        return self._call(self.command([words]), given)

    def _call(self, command, given=None):
        with self._free:
            child = self._start(command, subprocess.DEVNULL if given is None else subprocess.PIPE)
            try:
                out, err = child.communicate(given, LONGEST_CALL)
            except subprocess.TimeoutExpired:
                raise Fault("no answer within %d s" % LONGEST_CALL) from None
            finally:
                self.end(child)
        return child.returncode, out.decode(errors="replace"), err.decode(errors="replace")

    def json(self, *words):
        status, out, err = self.call(*words)
        try:
            return json.loads(out)
        except ValueError:
            raise Fault(said(err) or "scctl %s ended with status %d" % (words[0], status)) from None

    def jsons(self, *calls):
        """The JSON documents that several calls of scctl print."""
        return [self.json(*words) for words in calls]

    def stop(self):
        with self._lock:
            self._stopped = True
            children = list(self._children)
        for child in children:
            if child.poll() is None:
                child.terminate()
        limit = time.monotonic() + 2
        for child in children:
            try:
                child.wait(max(0.0, limit - time.monotonic()))
            except subprocess.TimeoutExpired:
                child.kill()
                child.wait()


class SshRunner(Runner):
    """Runs the scctl of another machine. Its shell gets each word quoted."""

    def __init__(self, host):
        super().__init__("ssh")
        self._host = host

    def command(self, calls):
        command = [self._program, self._host]
        for number, words in enumerate(calls):
            command += [";"] * (number > 0) + ["scctl"] + [shlex.quote(word) for word in words]
        return command

    def jsons(self, *calls):
        """By one connection, because each costs a router a handshake."""
        status, out, err = self._call(self.command(calls))
        documents = []
        decoder = json.JSONDecoder()
        try:
            for _ in calls:
                document, end = decoder.raw_decode(out.lstrip())
                documents.append(document)
                out = out.lstrip()[end:]
        except ValueError:
            raise Fault(said(err) or "ssh ended with status %d" % status) from None
        return documents


def said(text):
    """The last line of an error message, without the program's name."""
    lines = text.strip().splitlines()
    return re.sub(r"^scctl: ", "", lines[-1]) if lines else ""


class Source:
    """The areas of a running system."""

    can_watch = True
    can_edit = True

    def __init__(self, runner, title):
        self.runner = runner
        self.title = title
        self._tables = None
        self._fields = {}

    def tables(self):
        if self._tables is None:
            self._tables = {row["table"]: row for row in self.runner.json("tables", "--json")}
        return self._tables

    def table(self, name):
        if name not in self.tables():
            raise Fault("there is no table %s" % name)
        return self.tables()[name]

    def fields(self, name):
        if name not in self._fields:
            self.table(name)
            self._fields[name] = self.runner.json("fields", name, "--json")
        return self._fields[name]

    def options(self, _area):
        """Options with which scctl reads this area."""
        return []

    def areas(self):
        return self.runner.json("areas", "--json")

    def look(self):
        """What changes without a change of a record: locks and the running try."""
        return self.runner.jsons(("locks", "--json"), ("try", "--status", "--json"))

    def last_try(self):
        """How the last try ended."""
        _, out, err = self.runner.call("try", "--status")
        return said(err) or said(out)

    def records(self, name):
        """The used records of a table. Of fields of bytes only how many are used."""
        fields = self.fields(name)
        area = self.table(name)["area"]
        records = self.runner.json("list", name, "--json", *self.options(area))
        opaque = [field["field"] for field in fields if field["kind"] == "bytes"]
        for record in records:
            for field in opaque:
                # A record may lack a member of an overlay, and a secret has no value.
                if isinstance(record.get(field), str):
                    record[field] = "%d bytes" % (len(record[field]) // 2)
        return records

    def record(self, name, number):
        """A record: its fields, its bytes in hex, and the parts that the bytes have."""
        area = self.table(name)["area"]
        record = self.runner.json("get", "%s/%d" % (name, number), "--json", *self.options(area))
        status, out, err = self.runner.call("dump", area, *self.options(area))
        if status != 0:
            raise Fault(said(err))
        size = self.table(name)["bytes"]
        data, parts = record_bytes(out, "%s/%d" % (name, number), size)
        fields = own_fields(record, self.fields(name), parts)
        names = {field["at"]: field["field"] for field in fields}
        for part in parts:
            part["field"] = names.get(part["at"])
        return {"values": record, "fields": fields, "bytes": data, "parts": parts}

    def diff(self, a, b):
        """The lines of scctl diff, and the areas that differ."""
        status, out, err = self.runner.call("diff", a, b)
        if status > 1 or (status == 1 and not out):
            raise Fault(said(err) or "scctl diff ended with status %d" % status)
        lines = out.splitlines()
        names = {re.match(r"\w*", line)[0] for line in lines}
        areas = {self.tables()[name]["area"] if name in self.tables() else name for name in names}
        return {"lines": lines[:LONGEST_DIFF], "more": max(0, len(lines) - LONGEST_DIFF),
                "areas": sorted(areas)}

    def change(self, lines, seconds, note=""):
        """Tries the commands in a batch. Returns what scctl prints."""
        noted = ["--note", note] if note else []
        return self._end_of(self.runner.call("try", "--timeout", str(seconds), "batch", "-", *noted,
                                             given="".join(lines).encode()))

    def confirm(self):
        return self._end_of(self.runner.call("confirm"))

    def revert(self):
        return self._end_of(self.runner.call("revert"))

    @staticmethod
    def _end_of(ended):
        status, out, err = ended
        if status != 0:
            raise Fault(" ".join((out + err).split()) or "scctl ended with status %d" % status)
        return out.strip()


class Archives(Source):
    """The archives in a folder, which are only read."""

    can_watch = False
    can_edit = False

    def __init__(self, runner, folder):
        super().__init__(runner, "archives in %s" % folder)
        self._folder = pathlib.Path(folder)
        self._read = {}  # path: its stamp, its areas by name, or what is wrong with it
        if not self._folder.is_dir():
            raise Fault("%s is no folder" % folder)

    def _files(self):
        """Each archive with its areas, read again when it has changed."""
        files = {}
        for path in sorted(self._folder.glob("*.bin")):
            try:
                facts = path.stat()
            except OSError:
                continue
            stamp = (facts.st_ino, facts.st_size, facts.st_mtime_ns)
            if path not in self._read or self._read[path][0] != stamp:
                try:
                    read = self.runner.json("export", "--archive", str(path))
                except Fault as fault:
                    read = str(fault).replace("%s: " % path, "")
                self._read[path] = (stamp, read)
            files[path] = self._read[path][1]
        return files

    def options(self, area):
        for path, read in self._files().items():
            if isinstance(read, dict) and area in read:
                return ["--archive", str(path)]
        raise Fault("no archive in %s has the area %s" % (self._folder, area))

    def look(self):
        return [], None

    def areas(self):
        files = self._files()
        areas = {}
        for row in self.tables().values():
            about = areas.setdefault(row["area"], {
                "area": row["area"], "there": False, "used": 0, "capacity": 0, "archive": "none"})
            # Settings are tables, too; their records always exist.
            if [field["kind"] for field in self.fields(row["table"])] != ["bytes"]:
                about["capacity"] += row["records"]
            for path, read in files.items():
                if isinstance(read, dict) and row["area"] in read:
                    about["there"], about["archive"] = True, path.name
                    if about["capacity"]:
                        about["used"] += len(read[row["area"]].get(row["table"], []))
        broken = [{"area": path.name, "there": False, "used": 0, "capacity": 0, "archive": read}
                  for path, read in files.items() if isinstance(read, str)]
        return [*areas.values(), *broken]


def own_fields(record, fields, parts):
    """The fields that a record has. With overlays these may be others for each record, and bytes without
    a name are among them, which are only shown."""
    known = {field["field"]: field for field in fields}
    places = {part["name"]: part for part in parts}
    return [known.get(name) or {"field": name, "kind": "bytes", "bytes": places[name]["size"],
                                "at": places[name]["at"], "shown_only": True}
            for name in record if name in known or name in places]


def record_bytes(dump, name, size):
    """A record's bytes and the names of their parts, from what scctl dump prints of its area. The bytes
    are hex; those of a secret are **."""
    data = []
    parts = []
    inside = False
    for line in dump.splitlines():
        if not line.startswith(" "):
            inside = line.startswith(name + ":")
        elif inside and len(data) < size:
            # Place, bytes and name have columns of their own.
            written, part = line[10:58].strip(), line[58:].strip()
            zeros = re.match(r"(\d+) zero bytes?$", written)
            if part:
                parts.append({"name": part, "at": len(data), "size": 0})
            piece = ["00"] * int(zeros[1]) if zeros else written.split()
            data += piece
            parts[-1]["size"] += len(piece)
    if len(data) != size:
        raise Fault("%s is not in the dump of its area" % name)
    return "".join(data), parts
