"""scpage as its users start it, in a world of its own: private System V memory and /var."""

import http.client
import json
import os
import pathlib
import subprocess
import sys
import time
import urllib.parse

ROOT = pathlib.Path(__file__).resolve().parents[2]
SCPAGE = ROOT / "scpage/scpage"
SCCTL = os.environ.get("SCCTL") or str(ROOT / "build/host/scctl/scctl")


def is_inside():
    return os.path.exists("/var/private_world")


def enter(arguments):
    """Starts this program again in a private world."""
    world = str(ROOT / "examples/private_world")
    os.execv(world, [world, sys.executable, "-B", *arguments])


def scctl(*words, given=None):
    """Standard output of scctl, which must succeed."""
    ended = subprocess.run([SCCTL, *words], input=given, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    if ended.returncode != 0:
        raise AssertionError("scctl %s: %s" % (" ".join(words), ended.stderr.decode()))
    return ended.stdout.decode()


def fresh_areas():
    """All areas, empty, without archives and without a try."""
    subprocess.run([SCCTL, "revert"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    for archive in pathlib.Path("/var/dataconfig").glob("*.bin"):
        archive.unlink()
    scctl("init", "--all")


def children_of(pid, most=8):
    """The processes below a process, so many generations."""
    parents = {}
    for folder in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            fields = (folder / "stat").read_text().rpartition(")")[2].split()
        except OSError:
            continue
        if fields[0] != "Z":
            parents.setdefault(int(fields[1]), []).append(int(folder.name))
    found, generation = [], [pid]
    for _ in range(most):
        generation = [child for parent in generation for child in parents.get(parent, [])]
        found += generation
    return found


def words_of(pid):
    try:
        return pathlib.Path("/proc/%d/cmdline" % pid).read_bytes().decode().split("\0")[:-1]
    except OSError:
        return []


def world_of(pid):
    """Names the world that a process is in; None: it is gone."""
    try:
        return os.readlink("/proc/%d/ns/ipc" % pid)
    except OSError:
        return None


def watchers(page):
    """The watchers that scpage has started; each may have processes of its own."""
    return [pid for pid in children_of(page.child.pid, 1) if words_of(pid)[1:3] == ["watch", "--json"]]


def wait_for(condition, what, seconds=10):
    limit = time.monotonic() + seconds
    while not (value := condition()):
        if time.monotonic() > limit:
            raise AssertionError("not within %g s: %s" % (seconds, what))
        time.sleep(0.02)
    return value


class Page:
    """A running scpage."""

    def __init__(self, *options, environment=None):
        self.child = subprocess.Popen(
            [SCPAGE, *options], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, stdin=subprocess.DEVNULL, text=True,
            env={**os.environ, "SCCTL": SCCTL, **(environment or {})})
        self.url = self.child.stdout.readline().strip()
        parts = urllib.parse.urlsplit(self.url)
        self.host = parts.netloc
        self.origin = "http://" + self.host
        self.token = dict(urllib.parse.parse_qsl(parts.query)).get("token", "")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.end()

    def end(self):
        if self.child.poll() is None:
            self.child.terminate()
        status = self.child.wait(15)
        self.child.stdout.close()
        return status

    def request(self, method, path, body=None, headers=None, without=()):
        """Status, headers and body of a request that has all that the page's own have, but for `without`."""
        own = {"Host": self.host, "X-Token": self.token}
        if method == "POST":
            own.update({"Origin": self.origin, "Content-Type": "application/json"})
        own.update(headers or {})
        connection = http.client.HTTPConnection(self.host, timeout=20)
        connection.putrequest(method, path, skip_host=True, skip_accept_encoding=True)
        data = b"" if body is None else json.dumps(body).encode()
        if method == "POST":
            own["Content-Length"] = str(len(data))
        for name, value in own.items():
            if name not in without:
                connection.putheader(name, value)
        connection.endheaders(data)
        answer = connection.getresponse()
        text = answer.read().decode()
        connection.close()
        return answer.status, answer.headers, text

    def json(self, path):
        return json.loads(self.request("GET", path)[2])

    def post(self, path, body=None):
        status, _, text = self.request("POST", path, body or {})
        return status, text
