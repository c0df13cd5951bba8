"""A box that stops before each write to its flash."""

import select
import socket
import time

from box import Box, BoxError


class SteppedBox(Box):
    """A frozen box that stops whenever its CPU comes to one of the addresses given. The emulator's
    debugger interface does that; between two stops the box runs as it always does."""

    def __init__(self, addresses, *arguments, **options):
        self._addresses = addresses
        self._stopped = False
        super().__init__(*arguments, **options)

    def __exit__(self, *_):
        super().__exit__()
        self._debugger.close()

    def next_stop(self, last, seconds):
        """Lets the box run on to its next stop: True; or until its console says `last`: False. The
        console's lines up to then have been read."""
        if self._stopped:
            # One instruction further, or the same stop would be met again at once.
            self._set_stops("z")
            self._request("s")
            self._set_stops("Z")
            self._send("c")
            self._stopped = False
        console = self._emulator.stdout
        limit = time.monotonic() + seconds
        while time.monotonic() < limit:
            ready, _, _ = select.select([self._debugger, console], [], [], 1)
            # What was said before a stop lies in the pipe when the stop is told.
            while select.select([console], [], [], 0)[0] and self._read(1):
                pass
            if any(last in line for line in self.lines):
                return False
            if self._debugger in ready:
                if self._reply()[:1] != b"T":
                    raise BoxError("the box went off before '%s'" % last)
                self._stopped = True
                return True
        raise BoxError("the box did not come to a stop or to '%s' in %d s" % (last, seconds))

    def _open_debugger(self):
        self._debugger, emulators_end = socket.socketpair()
        return [emulators_end]

    def _go(self):
        self._set_stops("Z")
        self._send("c")

    def _set_stops(self, command):
        for address in self._addresses:
            if self._request("%s0,%x,4" % (command, address)) != b"OK":
                raise BoxError("no stop possible at %x" % address)

    # The debugger's packets: $text#checksum, each confirmed by a plus.

    def _send(self, text):
        self._debugger.sendall(b"$%s#%02x" % (text.encode(), sum(text.encode()) % 256))
        self._receive(b"+")

    def _request(self, text):
        self._send(text)
        return self._reply()

    def _reply(self):
        self._receive(b"$")
        text = self._receive(b"#")
        self._debugger.recv(2, socket.MSG_WAITALL)
        self._debugger.sendall(b"+")
        return text

    def _receive(self, end):
        """What comes before the byte `end`. Takes nothing after it: that is for select to see."""
        text = b""
        while (byte := self._debugger.recv(1)) != end:
            if not byte:
                raise BoxError("the emulator ended")
            text += byte
        return text
