"""One suite of checks: its log, its counts, the commands that it runs, and what it is at."""

import pathlib
import subprocess
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = ROOT / "build"
LOGS = BUILD / "check"
PROGRESS = 30  # seconds between two lines that say what a suite is at


class Suite:
    def __init__(self, name):
        self.name = name
        self.passed = 0
        self.failed = 0
        self.log_path = LOGS / (name + ".log")
        self._log = open(self.log_path, "w", buffering=1)
        self._started = time.monotonic()
        self.seconds = 0.0
        self._command = ""
        self._over = threading.Event()
        threading.Thread(target=self._tell, daemon=True).start()

    def ok(self, what):
        self.passed += 1
        self.note("ok " + what)

    def fail(self, what):
        self.failed += 1
        self.note("FAILED " + what)

    def verdict(self, good, what, why=""):
        if good:
            self.ok(what)
        else:
            self.fail(what + (": " + why if why else ""))
        return good

    def note(self, text):
        self._log.write(text + "\n")

    def run(self, command, check=None, status=0):
        """Runs a command with its output in the log. Returns whether it ended with the status
        wanted, which counts as one check under the name given, if any."""
        command = [str(word) for word in command]
        self._command = " ".join(command).replace(str(ROOT) + "/", "")
        self.note("$ " + " ".join(command))
        ended = subprocess.run(command, cwd=ROOT, stdin=subprocess.DEVNULL, stdout=self._log,
                               stderr=subprocess.STDOUT).returncode
        if ended != 0:
            self.note("status %d" % ended)
        if check:
            self.verdict(ended == status, check, "status %d" % ended)
        return ended == status

    def _tell(self):
        """Every half minute the command that runs and the log's last line."""
        while not self._over.wait(PROGRESS):
            with open(self.log_path, "rb") as log:
                log.seek(max(0, log.seek(0, 2) - 1000))
                lines = log.read().decode(errors="replace").split("\n")
            at = next((line.strip() for line in reversed(lines) if line.strip()), "")
            print("  %4d s  %.50s | %.70s" % (time.monotonic() - self._started, self._command, at),
                  flush=True)

    def end(self):
        """Closes the books. A suite that checked nothing has failed."""
        if self.passed + self.failed == 0:
            self.fail(self.name + ": nothing was checked")
        self.seconds = time.monotonic() - self._started
        self._over.set()
        self._log.close()
        if self.failed:
            lines = self.log_path.read_text(errors="replace").splitlines()
            failures = [line for line in lines[:-40] if line.startswith("FAILED ")]
            print("\n".join(failures[:40] + ["--- end of %s" % self.log_path] + lines[-40:]))

    def summary(self):
        return "%-14s %5d passed %4d failed %7.1f s" % (
            self.name, self.passed, self.failed, self.seconds)


def output(command):
    """The output of a command that must succeed."""
    return subprocess.run([str(word) for word in command], cwd=ROOT, check=True, text=True,
                          stdout=subprocess.PIPE).stdout


def files(*patterns):
    """The repository's own files that match, as sorted paths relative to the root."""
    found = set()
    for pattern in patterns:
        for path in ROOT.glob(pattern):
            relative = path.relative_to(ROOT)
            if path.is_file() and relative.parts[0] not in ("build", ".git"):
                found.add(relative)
    return sorted(found)
