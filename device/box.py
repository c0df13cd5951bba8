"""The box: a small router in the system emulator, its flash and its console.

The flash is a piece of the emulated memory that the kernel does not use and drives as a memory
chip (phram). The emulated memory is a file that this process maps, so a byte that the CPU stores
to the flash is in our hands at once: nothing between the file system and the chip delays or
reorders, and killing the emulator leaves exactly what was stored until then.
"""

import json
import mmap
import os
import pathlib
import re
import select
import signal
import socket
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
BUILD = ROOT / "build/box"

MIB = 1 << 20
MEMORY = 256 * MIB
FLASH_AT = 64 * MIB
FLASH_SIZE = 8 * MIB
ERASE_BLOCK = 64 * 1024
# Results of the test suite leave the box through a second such chip.
SPARE_AT = FLASH_AT + FLASH_SIZE
SPARE_SIZE = 24 * MIB

# Of a box that counts, an instruction takes 2^this ns; bench/costs.cc knows. The kernel reads the
# calendar clock for a second or two of the box to learn its CPU's frequency, and a longer instruction
# makes that fewer of them.
COUNTING_SHIFT = 2

EMPTY_FLASH = b"\xff" * FLASH_SIZE


def build():
    subprocess.run([ROOT / "device/build"], check=True, stdin=subprocess.DEVNULL)


def end_on_signals():
    """Turns a signal that ends this process into an exception, so that boxes are switched off."""
    def end(number, _frame):
        raise SystemExit(128 + number)
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, end)


class BoxError(Exception):
    pass


class Box:
    """One run from power on to power off. Use as a context: leaving it cuts the power.

    The clock of a box that counts advances by a fixed time with each instruction and by nothing else,
    so such a box does the same each time. It never waits for the host: while it has nothing to do, its
    clock runs as fast as the host can, and what is typed then may never reach it. So its job gets all
    that it has to know in words.

    A box that is to boot many times can be frozen once, with freeze(), before it mounts its flash,
    and later be started as a copy of that moment (frozen=) with any other flash.
    """

    def __init__(self, job, flash=EMPTY_FLASH, guard=False, initrds=(), console=None,
                 terminal=False, frozen=None, counting=False, words="", boot=0):
        if len(flash) != FLASH_SIZE:
            raise BoxError("a flash image has %d bytes, this one %d" % (FLASH_SIZE, len(flash)))
        self._terminal = terminal
        self._echo = console or (lambda line: None)
        self._pending = b""
        self.lines = []
        self._seen = 0
        self._memory_file = os.memfd_create("box")
        os.ftruncate(self._memory_file, MEMORY)
        self._memory = mmap.mmap(self._memory_file, MEMORY)
        self.flash = flash

        self._initrd = None
        initrd = BUILD / "initrd"
        pass_fds = [self._memory_file]
        if initrds:
            # The kernel unpacks archives that follow one another.
            self._initrd = os.memfd_create("initrd")
            for path in (initrd, *initrds):
                os.write(self._initrd, b"\0" * (-os.fstat(self._initrd).st_size % 4))
                with open(path, "rb") as file:
                    while os.sendfile(self._initrd, file.fileno(), None, 1 << 24):
                        pass
            pass_fds.append(self._initrd)
            initrd = "/proc/self/fd/%d" % self._initrd
        end = SPARE_AT + SPARE_SIZE
        kernel_arguments = " ".join([
            "console=ttyS0 quiet", "mem=%dM@0" % (FLASH_AT // MIB),
            "mem=%dM@%dM" % ((MEMORY - end) // MIB, end // MIB),
            *(["nokaslr"] if counting else []), *(["boot=%d" % boot] if boot else []),
            "job=" + job, "guard=%d" % guard,
            *(['words="%s"' % words] if words else []),
            "flash=flash,%d,%d,%d" % (FLASH_AT, FLASH_SIZE, ERASE_BLOCK),
            "spare=spare,%d,%d,%d" % (SPARE_AT, SPARE_SIZE, ERASE_BLOCK)])
        self._control, control_end = socket.socketpair()
        emulators_ends = [control_end, *self._open_debugger()]
        pass_fds += [end.fileno() for end in emulators_ends]
        # Should this process be killed, the emulator dies with it.
        command = [
            "setpriv", "--pdeathsig", "KILL", "qemu-system-mipsel",
            "-M", "malta,memory-backend=memory", "-cpu", "24Kc", "-m", "%dM" % (MEMORY // MIB),
            "-object", "memory-backend-file,id=memory,share=on,size=%d,mem-path=/proc/self/fd/%d"
            % (MEMORY, self._memory_file),
            "-kernel", BUILD / "kernel", "-initrd", initrd, "-append", kernel_arguments,
            "-nodefaults", "-display", "none", "-no-reboot", "-serial",
            "mon:stdio" if terminal else "stdio",
            "-chardev", "socket,id=control,fd=%d" % control_end.fileno(),
            "-mon", "chardev=control,mode=control"]
        if counting:
            command += ["-icount", "shift=%d,sleep=off" % COUNTING_SHIFT,
                        "-rtc", "clock=vm,base=2020-01-01", "-seed", "1"]
        if frozen:
            command += ["-S", "-incoming", "exec:cat '%s'" % frozen]
        for end in emulators_ends[1:]:
            command += ["-chardev", "socket,id=debugger,fd=%d" % end.fileno(),
                        "-gdb", "chardev:debugger"]
        stream = None if terminal else subprocess.PIPE
        self._emulator = subprocess.Popen(
            [str(word) for word in command], stdin=stream, stdout=stream, pass_fds=pass_fds,
            bufsize=0)
        for end in emulators_ends:
            end.close()
        self._answers = self._control.makefile()
        self._greeted = False
        if frozen:
            try:
                self._thaw(flash)
            except BaseException:
                self.__exit__()
                raise

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.cut_power()
        self._answers.close()
        self._control.close()
        self._memory.close()
        os.close(self._memory_file)
        if self._initrd is not None:
            os.close(self._initrd)

    @property
    def flash(self):
        """The bytes on the flash, now."""
        return self._memory[FLASH_AT:FLASH_AT + FLASH_SIZE]

    @flash.setter
    def flash(self, image):
        self._memory[FLASH_AT:FLASH_AT + FLASH_SIZE] = image

    @property
    def spare(self):
        return self._memory[SPARE_AT:SPARE_AT + SPARE_SIZE]

    def cut_power(self):
        """The emulator is killed, and gone when this returns. What it said before is kept."""
        if self._emulator.poll() is None:
            self._emulator.kill()
        self._emulator.wait()
        if not self._terminal:
            self._take(self._emulator.stdout.read())

    def freeze(self, path):
        """Writes this moment to a file and ends the emulator."""
        self._ask("stop")
        self._ask("migrate", uri="exec:cat >'%s'" % path)
        self._ask_until("query-migrate", "completed")
        self._ask("quit")

    def _thaw(self, flash):
        # The moment's own flash comes along with the memory and is overwritten.
        self._ask_until("query-status", "paused", "prelaunch")
        self.flash = flash
        self._go()

    def _go(self):
        self._ask("cont")

    def _open_debugger(self):
        """The emulator's end of a debugger's connection, for boxes that have one."""
        return []

    def _ask(self, command, **arguments):
        if not self._greeted:
            self._greeted = True
            self._answers.readline()
            self._ask("qmp_capabilities")
        request = {"execute": command, "arguments": arguments}
        self._control.sendall(json.dumps(request).encode())
        while True:
            line = self._answers.readline()
            answer = json.loads(line) if line else {"error": "the emulator ended"}
            if "error" in answer:
                raise BoxError("%s: %s" % (command, answer["error"]))
            if "return" in answer:
                return answer["return"]

    def _ask_until(self, question, *wanted):
        limit = time.monotonic() + 60
        while True:
            status = self._ask(question).get("status")
            if status in wanted:
                return
            if status == "failed" or time.monotonic() > limit:
                raise BoxError("%s: %s" % (question, status))
            time.sleep(0.02)

    def type(self, text):
        self._emulator.stdin.write(text.encode())

    def forget(self):
        """Drops the lines that the console has said."""
        self.lines.clear()
        self._seen = 0

    def wait_for(self, pattern, seconds):
        """The match of the next console line that the pattern fits, after the last such line."""
        expression = re.compile(pattern)
        limit = time.monotonic() + seconds
        while True:
            while self._seen < len(self.lines):
                match = expression.search(self.lines[self._seen])
                self._seen += 1
                if match:
                    return match
            if not self._read(limit - time.monotonic()):
                raise BoxError("no line with '%s' within %d s; the console's last lines:\n%s"
                               % (pattern, seconds, "\n".join(self.lines[-20:])))

    def answers(self):
        """Whether the emulator itself, not its router, still works."""
        self._control.settimeout(10)
        try:
            self._ask("query-status")
        except OSError:
            return False
        return True

    def run(self, seconds):
        """Lets the box run until it switches itself off."""
        if self._terminal:
            self._emulator.wait()
            return
        self.wait_for("^power off$", seconds)
        self._emulator.wait(60)

    def _read(self, seconds):
        if seconds <= 0 or not select.select([self._emulator.stdout], [], [], seconds)[0]:
            return False
        received = os.read(self._emulator.stdout.fileno(), 65536)
        self._take(received)
        return received != b""

    def _take(self, received):
        *lines, self._pending = (self._pending + received).split(b"\n")
        for line in lines:
            text = line.decode(errors="replace").rstrip("\r")
            self.lines.append(text)
            self._echo(text)


def count_in_box(job, measure, **options):
    """What measure(box) returns of a box that counts its time. The emulator can hang in a timer of its
    own. It does that at a certain instruction, so the same box would hang again. Another one has a
    word more for its kernel, and comes to that timer at another instruction."""
    boots = 4
    for boot in range(boots):
        with Box(job, counting=True, boot=boot, **options) as router:
            try:
                return measure(router)
            except BoxError:
                if boot == boots - 1 or router.answers():
                    raise
        print("the emulator hangs; once more, by another boot", file=sys.stderr, flush=True)
