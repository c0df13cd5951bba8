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
        self._received = b""
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
                    break
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

    def _request(self, text):
        self._send(text)
        return self._reply()

    def _reply(self):
        while True:
            start, end = self._received.find(b"$"), self._received.find(b"#")
            if 0 <= start < end and len(self._received) >= end + 3:
                text = self._received[start + 1:end]
                self._received = self._received[end + 3:]
                self._debugger.sendall(b"+")
                return text
            more = self._debugger.recv(65536)
            if not more:
                return b""
            self._received += more
