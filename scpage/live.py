"""What is followed while it changes: one stream of changes and one look at the rest, for all tabs."""

import collections
import json
import threading
import time

from source import Fault, said

TICK = 1.0  # seconds between two signs of life for a tab
SILENCE = 2.3  # after so many seconds without an answer the source counts as lost
RECENT = 200  # changes that a new tab is shown
LONGEST_QUEUE = 2000  # changes that wait for a tab


class Tab:
    """What waits to be sent to one tab. Nothing ever waits for a tab: if it does not read, changes are
    dropped, counted and told."""

    def __init__(self):
        self._condition = threading.Condition()
        self._changes = []
        self._dropped = 0
        self._latest = {}
        self._closed = False

    def add_change(self, change):
        with self._condition:
            if len(self._changes) >= LONGEST_QUEUE:
                self._dropped += len(self._changes)
                self._changes.clear()
            self._changes.append(change)
            self._condition.notify()

    def put(self, name, value):
        """A state, of which only the latest counts."""
        with self._condition:
            self._latest[name] = value
            self._condition.notify()

    def close(self):
        with self._condition:
            self._closed = True
            self._condition.notify()

    def take(self):
        """The next message for the tab; None when it is closed."""
        with self._condition:
            if not (self._changes or self._latest or self._closed):
                self._condition.wait(TICK)
            if self._closed:
                return None
            message = dict(self._latest, tick=time.time())
            if self._changes:
                message["changes"] = self._changes
            if self._dropped:
                message["dropped"] = self._dropped
            self._changes, self._dropped, self._latest = [], 0, {}
            return message


class Hub:
    """Asks the source, and passes what it says to all tabs."""

    def __init__(self, source):
        self.source = source
        self._lock = threading.Lock()
        self._tabs = set()
        self._recent = collections.deque(maxlen=RECENT)
        self._latest = {}
        self._answered = time.monotonic()  # when the source last answered
        self._lost = None
        self._stop = threading.Event()
        self._wanted = threading.Event()  # there is a tab
        self._asked = threading.Event()  # a look is due now
        self._changed = threading.Event()  # areas and differences are due
        self._usual = 0.0  # seconds that a look takes

    # ---- for the server ----

    def start(self):
        runs = [self._look, self._areas, self._silence]
        if self.source.can_watch:
            runs.append(self._watch)
        for run in runs:
            threading.Thread(target=run, daemon=True).start()

    def stop(self):
        self._stop.set()
        for event in (self._wanted, self._asked, self._changed):
            event.set()
        with self._lock:
            for tab in self._tabs:
                tab.close()

    def open_tab(self):
        tab = Tab()
        with self._lock:
            if not self._tabs:
                self._answered = time.monotonic()  # nobody has asked until now
            for name, value in self._latest.items():
                tab.put(name, value)
            for change in self._recent:
                tab.add_change(dict(change, old=True))
            self._tabs.add(tab)
        self._wanted.set()
        self._asked.set()
        self._changed.set()
        return tab

    def close_tab(self, tab):
        tab.close()
        with self._lock:
            self._tabs.discard(tab)
            if not self._tabs and not self._stop.is_set():
                self._wanted.clear()

    def areas(self):
        """The areas as they are now, or as they were known last."""
        try:
            self._put("areas", self.source.areas())
        except Fault:
            if "areas" not in self._latest:
                raise
        return self._latest["areas"]

    def ask(self):
        """Looks now: something was just done."""
        self._asked.set()
        self._changed.set()

    # ---- threads ----

    def _put(self, name, value):
        with self._lock:
            if name in self._latest and self._latest[name] == value:
                return
            self._latest[name] = value
            for tab in self._tabs:
                tab.put(name, value)

    def _found(self):
        """The source has answered."""
        with self._lock:
            self._answered = time.monotonic()
            self._lost = None
        self._put("link", {"live": True})

    def _missed(self, why):
        """The source does not answer."""
        with self._lock:
            if self._lost is None:
                self._lost = time.time() - (time.monotonic() - self._answered)
            since = self._lost
        self._put("link", {"live": False, "since": since, "why": why})

    def _silence(self):
        """Tells when an answer does not come."""
        while not self._stop.wait(0.1):
            limit = max(SILENCE, self._pause() + 1.5 * self._usual)
            if self._wanted.is_set() and time.monotonic() - self._answered > limit:
                self._missed("no answer")

    def _pause(self):
        """Seconds between two looks. A slow source is asked less often."""
        return max(TICK, 1.5 * self._usual)

    def _look(self):
        """Locks and the running try. It shows whether the source is there."""
        bounds = None
        while self._wanted.wait() and not self._stop.is_set():
            self._asked.clear()
            begun = time.monotonic()
            try:
                locks, running = self.source.look()
                self._usual = time.monotonic() - begun
                self._found()
                self._put("locks", locks)
                if running:
                    # The seconds left are told as a whole number, rounded up. Each look bounds the end.
                    low, high = begun + running["left"] - 1, time.monotonic() + running["left"]
                    if bounds and max(low, bounds[0]) <= min(high, bounds[1]):
                        low, high = max(low, bounds[0]), min(high, bounds[1])
                    bounds = low, high
                    running["until"] = round(time.time() + (low + high) / 2 - time.monotonic(), 1)
                elif bounds:
                    bounds = None
                    self._put("ended", {"text": self.source.last_try(), "at": time.time()})
                self._put("try", running)
            except Fault as fault:
                self._missed(str(fault))
            self._asked.wait(self._pause())

    def _areas(self):
        """Areas, and what differs from saved and from factory: each takes reading all archives."""
        while self._wanted.wait() and not self._stop.is_set():
            self._changed.clear()
            begun = time.monotonic()
            try:
                self._put("areas", self.source.areas())
                self._put("tables", list(self.source.tables().values()))
                if self.source.can_watch:
                    self._put("diff", {"saved": self._diff("saved"), "factory": self._diff("factory")})
            except Fault:
                pass  # the look tells it
            self._stop.wait(max(TICK, 10 * (time.monotonic() - begun)))
            self._changed.wait(5)

    def _diff(self, base):
        try:
            return self.source.diff(base, "live")
        except Fault as fault:
            return {"fault": str(fault)}

    def _watch(self):
        """The stream. What ends is started again, and each tab reads its table again."""
        pause = 0.5
        while not self._stop.is_set():
            try:
                child = self.source.runner.start(["watch", "--json"])
            except Fault as fault:
                self._put("stream", {"fault": str(fault)})
                self._stop.wait(pause)
                continue
            begun = time.monotonic()
            said_last = []
            reader = threading.Thread(target=self._read_remarks, args=(child, begun, said_last), daemon=True)
            reader.start()
            for line in child.stdout:
                self._take(line)
            reader.join(2)
            self.source.runner.end(child)
            why = said("".join(said_last)) or "scctl watch has ended"
            self._put("stream", {"fault": why})
            self._asked.set()
            pause = 0.5 if time.monotonic() - begun > 5 else min(pause * 2, 5)
            self._stop.wait(pause)

    def _read_remarks(self, child, begun, said_last):
        """What watch says beside the stream: first that it watches, last why it ends."""
        remarks = []
        for line in child.stderr:
            text = line.decode(errors="replace").strip()
            said_last[:] = [text]
            if text != "watching":
                remarks.append(said(text))
            if text.startswith(("watching", "looking every")):
                said_last.clear()
                self._put("stream", {"begun": begun, "remark": "; ".join(remarks)})

    def _take(self, line):
        try:
            change = json.loads(line)
        except ValueError:
            return  # a line that its end has cut
        if change.get("seen") == "anew":
            return  # the state after a loss, which each tab reads for itself
        with self._lock:
            self._recent.append(change)
            for tab in self._tabs:
                tab.add_change(change)
        self._changed.set()
