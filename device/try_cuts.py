"""Power cuts while a change is tried, confirmed or taken back, and in the boot that follows.

A run of the router is recorded once: its flash when the try begins, each write to it from then on,
and what the router's console had said before each write. A cut is the flash as it was at one of
these moments, from which another router boots. That router prints a sum of each area, and these are
compared with the sums that the areas had before the try and with the change.
"""

import base64
import collections
import concurrent.futures
import dataclasses
import hashlib
import itertools
import json
import os
import queue
import random
import shutil
import sys
import threading
import time
import zlib

import box
from cuts import cut_lengths, difference, flash_driver, frozen_when_ready
from stepped import SteppedBox

OUTCOMES = ("before", "after", "mixed", "lost", "no boot")

AREAS = ("lan wan product misc vs_ipport fw_ipport ipgroup timegroup fw_mac fw_url qos mange_aplist "
         "aptemplatelist defaptemplate clients_groups clients").split()
NEVER_SAVED = ("fw_mac", "defaptemplate")
SAVED = [area for area in AREAS if area not in NEVER_SAVED]

# The Lan area has 32 bindings of noise already.
BASE = """
set wan/1 settings=01
set product_info/1 settings=02
set misc_2/1 settings=03
add ip_groups leading_text=office start_ip_text=10.0.0.1 end_ip_text=10.0.0.9
add ip_groups leading_text=guests start_ip_text=10.0.1.1 end_ip_text=10.0.1.9
add time_groups leading_text=night start_time=22:00 end_time=06:00
add port_forward leading_text=web ip_text=10.0.0.2
add ip_filter leading_text=one ip_mode=1 ip_group_id=1 start_ip_text=10.9.0.1 end_ip_text=10.9.0.2
add ip_filter leading_text=two start_ip_text=10.9.1.1 end_ip_text=10.9.1.2
add url_filter leading_text=ads url=ads.example
add qos leading_text=slow start_ip_text=10.8.0.1 end_ip_text=10.8.0.2
add aps ap_mac=02:00:00:00:01:01 group_info=hall
add ap_templates template_name=hall
add client_groups group_name=staff
add clients client_mac=02:00:00:00:02:01 text_52=one
"""
ONE = """
set lan_binds/3 name=tried
del lan_binds/5
"""
FIRST_SAVE = """
add mac_filter leading_text=tablet mac=02:00:00:00:00:02
"""
# The group's deletion deletes ip_filter/1.
THREE = ONE + """
del ip_groups/1
set ip_filter/2 start_ip_text=10.9.1.0
"""
ALL = THREE + FIRST_SAVE + """
set wan/1 settings=11
set product_info/1 settings=12
set misc_2/1 settings=13
set time_groups/1 start_time=21:00
set port_forward/1 ip_text=10.0.0.3
set url_filter/1 url=tried.example
set qos/1 end_ip_text=10.8.0.3
add aps ap_mac=02:00:00:00:01:02 group_info=cellar
set ap_templates/1 template_name=cellar
set default_template/1 settings=14
add client_groups group_name=guests
del clients/1
"""

# "tries say" prints "now" and its word. The sums before the try are those of the areas as booted, and
# the second ones those with the change.
TRY = "tries sums; tries say trying; scctl try --timeout 3600 batch /tmp/batch && tries sums; "
TRY_COMMAND = ("tries sums; tries say trying; scctl try --timeout 3600 -- router delete 7 && "
               "tries sums; ")
CONFIRM = "tries say confirming; scctl confirm && tries say confirmed; sleep 1"
REVERT = "scctl revert && tries say reverted; sleep 1"
SAVE_LAN = "router save && scguard keep lan; "
SAVE_ALL = "scctl save --all && "


@dataclasses.dataclass
class Plan:
    """A run to be recorded, or with `boots` what it leaves and the boot after that."""
    name: str
    batch: str
    changed: int  # areas
    commands: str
    last: str  # said at the end of a run that went as meant
    whole: bool = False  # each write is cut, and within; else a sample
    boots: bool = False
    short: bool = False  # part of the short form
    prologue: str = ""


PLANS = (
    Plan("one area, confirmed", ONE, 1, TRY + CONFIRM, "confirmed", whole=True, short=True),
    Plan("one area, taken back", ONE, 1, TRY + REVERT, "reverted", whole=True),
    Plan("one area, saved by another program, confirmed", ONE, 1, TRY + SAVE_LAN + CONFIRM,
         "confirmed"),
    Plan("one area, saved by another program, taken back", ONE, 1, TRY + SAVE_LAN + REVERT,
         "reverted"),
    Plan("one area whose kept copy is old, confirmed", ONE, 1, TRY + CONFIRM, "confirmed",
         prologue="scctl set lan_binds/1 name=old && router save; "),
    Plan("one area, never saved before, confirmed", FIRST_SAVE, 1, TRY + CONFIRM, "confirmed",
         whole=True),
    Plan("three areas, confirmed", THREE, 3, TRY + CONFIRM, "confirmed"),
    Plan("three areas, taken back", THREE, 3, TRY + REVERT, "reverted"),
    Plan("all areas, confirmed", ALL, len(AREAS), TRY + CONFIRM, "confirmed", short=True),
    Plan("all areas, by a command, confirmed", "", 1, TRY_COMMAND + CONFIRM, "confirmed"),
    Plan("one area, the boot after a cut", ONE, 1, TRY + SAVE_LAN + "tries say cut; sleep 100",
         "cut", whole=True, boots=True),
    Plan("three areas, one archive broken, the boot after a cut", THREE, 3,
         TRY + "scctl save Lan IpGroup FwIpport; echo x >/var/dataconfig/config_ipgroup.bin; sync; "
         "tries say cut; sleep 100", "cut", boots=True, short=True),
    Plan("all areas, the boot after a cut", ALL, len(AREAS),
         TRY + SAVE_ALL + "tries say cut; sleep 100", "cut", boots=True),
)

# What a cut may give back, by the last word that the console has said.
ALLOWED = {"confirming": {"before", "after"}, "confirmed": {"after"}}


def allowed(word):
    return ALLOWED.get(word, {"before"})


def pack(data):
    return base64.b64encode(zlib.compress(data)).decode()


def unpack(text):
    return zlib.decompress(base64.b64decode(text))


class Recording:
    """`writes` holds for each write: offset, bytes, and the last word said when it began and when
    the next one began."""

    def __init__(self, name, before, after, start, writes):
        self.name = name
        self.before = before
        self.after = after
        self.start = start
        self.writes = writes

    def to_json(self):
        return {"recording": self.name, "before": self.before, "after": self.after,
                "start": pack(self.start),
                "writes": [(at, pack(new), *words) for at, new, *words in self.writes]}

    @staticmethod
    def from_json(line):
        return Recording(line["recording"], line["before"], line["after"], unpack(line["start"]),
                         [(at, unpack(new), *words) for at, new, *words in line["writes"]])

    def cuts(self, every):
        """The moments: how many writes are whole, and how much there is of the next."""
        moments = [(0, 0)]
        for n, (_, new, *_) in enumerate(self.writes):
            moments += [(n, length) for length in cut_lengths(new, every)[:-1]] + [(n + 1, 0)]
        return moments

    def flash(self, moment):
        whole, part = moment
        flash = bytearray(self.start)
        for offset, new, *_ in self.writes[:whole]:
            flash[offset:offset + len(new)] = new
        if part:
            offset, new, *_ = self.writes[whole]
            flash[offset:offset + part] = new[:part]
        return bytes(flash)

    def word(self, moment):
        whole, part = moment
        if part:
            return self.writes[whole][2]
        return self.writes[whole - 1][3] if whole else self.writes[0][2]

    def outcome(self, sums):
        if sums is None:
            return "no boot"
        if sums == self.before:
            return "before"
        if sums == self.after:
            return "after"
        known = all(now in two for now, *two in zip(sums, self.before, self.after))
        return "mixed" if known and len(sums) == len(self.before) else "lost"


class Recorder:
    def __init__(self, folder):
        self._try = folder / "try.frozen"
        self.classify = folder / "classify.frozen"
        with concurrent.futures.ThreadPoolExecutor(2) as pool:
            lines, _ = pool.map(frozen_when_ready, ("try", "classify"), (self._try, self.classify))
        self._addresses = flash_driver(lines)
        self._base = None

    def _type(self, router, commands, batch=""):
        lines = [line for line in batch.splitlines() if line]
        router.type("\n".join([commands, *lines, "", ""]))

    def _run(self, flash, commands, batch, last):
        """Gives the flash and the console's lines when `last` was said."""
        with box.Box("try", flash, frozen=self._try) as router:
            self._type(router, commands, batch)
            router.wait_for("^now %s$" % last, 180)
            router.cut_power()
            return router.flash, router.lines

    def prepare(self):
        keeps = "".join("scguard keep %s && " % area for area in SAVED)
        commands = ("states run 0 1 && scctl batch /tmp/batch && scctl save %s && %stries say saved"
                    % (" ".join(SAVED), keeps))
        self._base, _ = self._run(box.EMPTY_FLASH, commands, BASE, "saved")

    def record(self, plan):
        if plan.boots:
            flash, lines = self._run(self._base, plan.commands, plan.batch, plan.last)
            before, after = two_sums(plan, lines)
            start, writes, _ = self._writes(flash, "tries say booted", "", None, "booted")
        else:
            start, writes, lines = self._writes(self._base, plan.prologue + plan.commands, plan.batch,
                                                "trying", plan.last)
            before, after = two_sums(plan, lines)
        return Recording(plan.name, before, after, start, writes)

    def _writes(self, flash, commands, batch, first, last):
        start = now = None
        found = []
        words = ["begun"]
        with SteppedBox(self._addresses, "try", flash, frozen=self._try) as router:
            self._type(router, commands, batch)
            more = True
            while more:
                more = router.next_stop("power off", 300)
                before, now = now, router.flash
                said = [line[4:] for line in router.lines if line.startswith("now ")]
                word_before, words = words[-1], words[:1] + said
                if start is None and (first is None or first in said):
                    start = now
                elif start is not None and (change := difference(before, now)):
                    found.append((*change, word_before, words[-1]))
            if words[-1] != last:
                raise box.BoxError("the run did not come to '%s':\n%s"
                                   % (last, "\n".join(router.lines)))
            return start, found, router.lines


def two_sums(plan, lines):
    """The sums before the try and with the change."""
    found = [line.split()[1:] for line in lines if line.startswith("sums ")]
    changed = sum(a != b for a, b in zip(*found)) if len(found) == 2 else 0
    if changed != plan.changed:
        raise box.BoxError("%s: %d areas have changed, not %d:\n%s"
                           % (plan.name, changed, plan.changed, "\n".join(lines)))
    return found


class Results:
    """Recordings and outcomes of cuts, in memory and, line by line, in a file."""

    def __init__(self, path, seed):
        self.seed = seed
        self.recordings = {}
        self.outcomes = {}
        self._lock = threading.Lock()
        self._file = None
        if path is None:
            return
        build = hashlib.sha256((box.BUILD / "initrd").read_bytes()
                               + (box.BUILD / "kernel").read_bytes()).hexdigest()
        if path.exists():
            self._load(path, build)
        self._file = open(path, "a")
        if not self.recordings:
            self._file.truncate(0)
            self._write({"build": build, "seed": seed})

    def _load(self, path, build):
        text = path.read_text()
        whole = text[:text.rfind("\n") + 1]  # a last line may have been cut off
        os.truncate(path, len(whole))
        for line in map(json.loads, whole.splitlines()):
            if "build" in line:
                self.seed = line["seed"]
                if line["build"] != build:
                    raise box.BoxError("%s: of another build of the router" % path)
            elif "recording" in line:
                self.recordings[line["recording"]] = Recording.from_json(line)
            else:
                self.outcomes[line["of"], tuple(line["moment"])] = line["sums"]

    def _write(self, line):
        if self._file:
            self._file.write(json.dumps(line) + "\n")
            self._file.flush()

    def add_recording(self, recording):
        with self._lock:
            self.recordings[recording.name] = recording
            self._write(recording.to_json())

    def add_cut(self, recording, moment, sums):
        with self._lock:
            self.outcomes[recording.name, moment] = sums
            self._write({"of": recording.name, "moment": moment, "sums": sums})


def chosen_cuts(plans, recordings, cuts, every, seed, short):
    """For each plan the moments at which it is cut. A sample has the first and the last; a larger one
    has all of a smaller one."""
    moments = {plan.name: recordings[plan.name].cuts(every) for plan in plans}
    whole = [plan.name for plan in plans if plan.whole and not short]
    sampled = [plan.name for plan in plans if plan.name not in whole]
    sampled.sort(key=lambda name: len(moments[name]))  # what one cannot use is left to the longer ones
    left = max(cuts - sum(len(moments[name]) for name in whole), 0)
    for n, name in enumerate(sampled):
        first, *rest, end = moments[name]
        random.Random("%s, %s" % (seed, name)).shuffle(rest)
        moments[name] = [end, first, *rest][:left // (len(sampled) - n)]
        left -= len(moments[name])
    return moments


def classify(recorder, todo, results):
    """Boots from one flash after the other, until none is left."""
    item = next_of(todo)
    while item is not None:
        with box.Box("classify", frozen=recorder.classify) as router:
            while item is not None:
                recording, moment = item
                router.flash = recording.flash(moment)
                router.forget()
                router.type("1 tries sums\n")
                try:
                    match = router.wait_for(r"^sums (.*)|^tries: there is no area", 120)
                    sums = match[1].split() if match[1] else None
                except box.BoxError:
                    sums = None
                results.add_cut(recording, moment, sums)
                item = next_of(todo)
                if sums is None:
                    break  # on with a box that is well
                router.wait_for("^ready", 120)


def next_of(todo):
    try:
        return todo.get_nowait()
    except queue.Empty:
        return None


def in_two(tasks, folder):
    """Runs tasks two at a time. At the first that fails the others are left, whose emulators die with
    this process."""
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        futures = [pool.submit(task) for task in tasks]
        try:
            for future in concurrent.futures.as_completed(futures):
                future.result()
        except BaseException as error:
            print("tools/powercut: %s" % (error or type(error).__name__), file=sys.stderr,
                  flush=True)
            shutil.rmtree(folder)
            os._exit(1)


def table(plans, results, moments, short):
    lines = ["| the try | cut at | cuts | after confirm had returned | %s |" % " | ".join(OUTCOMES),
             "|---|---|---:|---:|" + "---:|" * len(OUTCOMES)]
    wrong = []
    total = collections.Counter()
    for plan in plans:
        recording = results.recordings[plan.name]
        counts = collections.Counter()
        for moment in moments[plan.name]:
            outcome = recording.outcome(results.outcomes[plan.name, moment])
            word = recording.word(moment)
            counts[outcome] += 1
            counts["late"] += word == "confirmed"
            if outcome not in allowed(word):
                wrong.append("%s, %d writes and %d bytes, %s: %s"
                             % (plan.name, *moment, word, outcome))
        writes = len(recording.writes)
        lines.append("| %s | %s | %d | %d | %s |" % (
            plan.name,
            ("a sample of %d writes" if short or not plan.whole else "every write (%d writes)") % writes,
            len(moments[plan.name]), counts["late"],
            " | ".join(str(counts[outcome]) for outcome in OUTCOMES)))
        total += counts
    return lines, wrong, total


def run(options, folder):
    plans = [plan for plan in PLANS if plan.short or not options.short]
    started = time.monotonic()
    results = Results(options.resume, options.seed)
    print("Seed %s" % results.seed, flush=True)
    recorder = Recorder(folder)
    missing = [plan for plan in plans if plan.name not in results.recordings]
    if missing:
        recorder.prepare()
    in_two([lambda plan=plan: results.add_recording(recorder.record(plan)) for plan in missing],
           folder)

    moments = chosen_cuts(plans, results.recordings, options.cuts, options.every, results.seed,
                          options.short)
    todo = queue.SimpleQueue()
    found = len(results.outcomes)
    # A row of each plan in turn, so that a run that is ended early has met all of them.
    for row in itertools.zip_longest(*(moments[plan.name] for plan in plans)):
        for plan, moment in zip(plans, row):
            if moment is not None and (plan.name, moment) not in results.outcomes:
                todo.put((results.recordings[plan.name], moment))
    in_two([lambda: classify(recorder, todo, results)] * 2, folder)

    lines, wrong, total = table(plans, results, moments, options.short)
    print("\n".join(lines))
    cuts = sum(len(moments[plan.name]) for plan in plans)
    print("%d cuts, %d of them in this call, in %.0f s"
          % (cuts, len(results.outcomes) - found, time.monotonic() - started))
    for line in wrong:
        print("must not be: " + line)
    # Cuts that all give back the same have not met what decides.
    toothless = [word for word in ("before", "after") if not total[word]]
    for word in toothless:
        print("no cut gave back the areas %s the change" % word)
    return 1 if wrong or toothless else 0
