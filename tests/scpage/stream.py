"""A WebSocket to scpage's stream, as a tab has one."""

import json
import os
import base64
import socket


class Stream:
    def __init__(self, page, token=None, origin=None, host=None):
        name, port = page.host.split(":")
        self.socket = socket.create_connection((name, int(port)), timeout=20)
        self.file = self.socket.makefile("rb")
        self.socket.sendall((
            "GET /stream?token=%s HTTP/1.1\r\nHost: %s\r\nOrigin: %s\r\nUpgrade: websocket\r\n"
            "Connection: Upgrade\r\nSec-WebSocket-Version: 13\r\nSec-WebSocket-Key: %s\r\n\r\n" % (
                page.token if token is None else token, host or page.host, origin or page.origin,
                base64.b64encode(os.urandom(16)).decode())).encode())
        self.status = int(self.file.readline().split()[1])
        while self.file.readline().strip():
            pass

    def message(self):
        """The next message; None at the end."""
        head = self.file.read(2)
        if len(head) < 2:
            return None
        size = head[1] & 127
        if size > 125:
            size = int.from_bytes(self.file.read(2 if size == 126 else 8), "big")
        return json.loads(self.file.read(size))

    def until(self, found, most=200):
        """Reads on to a message for which the function has a result, and returns that."""
        for _ in range(most):
            message = self.message()
            if message is None:
                raise AssertionError("the stream has ended")
            if result := found(message):
                return result
        raise AssertionError("not within %d messages" % most)

    def close(self):
        self.file.close()
        self.socket.close()
