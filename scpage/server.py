"""The web server: one page, its data, and the stream to each tab. It listens on 127.0.0.1 alone.

Who has no token gets the names of the areas, nothing else. A request must name this server as its host, which
a site cannot do that has its name point here, and one with an Origin must come from the page itself.
"""

import base64
import hashlib
import hmac
import html
import http.server
import json
import pathlib
import re
import secrets
import socket
import struct
import threading
import urllib.parse

from source import Fault

PAGE = pathlib.Path(__file__).resolve().parent / "page"
FILES = {"/page.css": "text/css", "/page.js": "text/javascript", "/icon.svg": "image/svg+xml"}
LONGEST_BODY = 1 << 17
LONGEST_WRITE = 10  # seconds until a tab that does not read is given up
TRY_SECONDS = 90
LONGEST_NOTE = 100


class Refused(Exception):
    """A status of HTTP and what is said with it."""

    def __init__(self, status, text):
        super().__init__(text)
        self.status = status


class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True
    request_queue_size = 64

    def __init__(self, port, source, hub, may_edit):
        super().__init__(("127.0.0.1", port), Handler)
        self.source = source
        self.hub = hub
        self.may_edit = may_edit
        self.token = secrets.token_urlsafe(24)
        self.hosts = {"%s:%d" % (name, self.server_port) for name in ("127.0.0.1", "localhost")}
        self.url = "http://127.0.0.1:%d/?token=%s" % (self.server_port, self.token)

    def handle_error(self, request, client_address):
        """A tab that is closed in the middle of an answer is no error."""


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server_version = "scpage"
    sys_version = ""
    timeout = 30

    def log_message(self, format, *arguments):
        pass

    # ---- requests ----

    def do_GET(self):
        self._answer(self._get)

    def do_POST(self):
        self._answer(self._post)

    def _answer(self, work):
        try:
            if self.headers.get("Host") not in self.server.hosts:
                raise Refused(403, "this is no name of scpage")
            work()
        except Refused as refused:
            self.close_connection = True
            self._send(refused.status, "text/plain; charset=utf-8", str(refused).encode())
        except Fault as fault:
            self._send_json({"fault": str(fault)}, 502)

    def _get(self):
        path, _, query = self.path.partition("?")
        query = dict(urllib.parse.parse_qsl(query))
        if path in FILES:
            self._send(200, FILES[path], (PAGE / path[1:]).read_bytes())
        elif path == "/":
            self._send(200, "text/html; charset=utf-8", self._page(self._knows(query.get("token", ""))))
        elif path == "/table":
            self._need_token()
            name = query.get("name", "")
            self._send_json({"fields": self.server.source.fields(name),
                             "records": self.server.source.records(name)})
        elif path == "/record":
            self._need_token()
            self._send_json(self.server.source.record(query.get("table", ""),
                                                      int(self._number(query.get("id", "")))))
        elif path == "/stream":
            if not self._knows(query.get("token", "")) or \
                    self.headers.get("Origin") not in self._own_origins():
                raise Refused(403, "the token of this page is needed")
            self._stream()
        else:
            raise Refused(404, "there is no such page")

    def _post(self):
        if self.headers.get("Origin") not in self._own_origins():
            raise Refused(403, "only the page itself may do this")
        self._need_token()
        if self.headers.get("Content-Type") != "application/json":
            raise Refused(403, "only JSON is read")
        size = self._number(self.headers.get("Content-Length", ""))
        if size > LONGEST_BODY:
            raise Refused(413, "this is too long")
        if not self.server.may_edit:
            raise Refused(403, "read-only: scpage was started without --edit")
        body = self.rfile.read(size)
        try:
            asked = json.loads(body)
        except ValueError:
            raise Refused(400, "this is no JSON") from None
        source = self.server.source
        if self.path == "/try":
            try:
                lines = batch_of(source, asked)
                seconds = self._number(str(asked.get("seconds", TRY_SECONDS)))
                note = asked.get("note", "")
                if len(note) > LONGEST_NOTE or not note.isprintable():
                    raise Refused(400, "a note is one line of at most %d letters" % LONGEST_NOTE)
            except (AttributeError, KeyError, TypeError):
                raise Refused(400, "this is no edit") from None
            told = source.change(lines, seconds, note)
        elif self.path == "/confirm":
            told = source.confirm()
        elif self.path == "/revert":
            told = source.revert()
        else:
            raise Refused(404, "there is no such action")
        self.server.hub.ask()
        self._send_json({"told": told})

    # ---- rights ----

    def _own_origins(self):
        return {"http://" + self.headers["Host"]}

    def _knows(self, token):
        return hmac.compare_digest(token.encode(), self.server.token.encode())

    def _need_token(self):
        if not self._knows(self.headers.get("X-Token", "")):
            raise Refused(403, "the token of this page is needed")

    @staticmethod
    def _number(text):
        if not re.fullmatch(r"[0-9]{1,9}", text):
            raise Refused(400, "a number is needed")
        return int(text)

    # ---- answers ----

    def _page(self, is_known):
        """The page as it is before its script runs: it names all areas. Without the token it has no
        more than these names."""
        server = self.server
        try:
            areas, fault = server.hub.areas(), ""
        except Fault as caught:
            areas, fault = [], str(caught)
        if not is_known:
            fault = "Open the URL that scpage has printed: this one has no valid token."
            areas = [{"area": row["area"]} for row in areas]
        values = {
            "TITLE": server.source.title if is_known else "",
            "FAULT": fault,
            "TOKEN": server.token if is_known else "",
            "MODE": "edit" if server.may_edit and is_known else "read",
            "STREAM": "yes" if server.source.can_watch else "no",
        }
        page = (PAGE / "page.html").read_text()
        for name, value in values.items():
            page = page.replace("{%s}" % name, html.escape(value))
        return page.replace("{AREAS}", "".join(map(area_item, areas))).encode("utf-8", "replace")

    def _send_json(self, value, status=200):
        self._send(status, "application/json", json.dumps(value).encode())

    def _send(self, status, kind, body):
        self.send_response(status)
        self.send_header("Content-Type", kind)
        self.send_header("Content-Length", str(len(body)))
        self.send_header("Cache-Control", "no-store")
        host = self.headers.get("Host") if self.headers.get("Host") in self.server.hosts else ""
        self.send_header("Content-Security-Policy",
                         "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; "
                         "connect-src 'self'%s; base-uri 'none'; form-action 'none'; "
                         "frame-ancestors 'none'" % (" ws://" + host if host else ""))
        for name, value in (("X-Content-Type-Options", "nosniff"), ("X-Frame-Options", "DENY"),
                            ("Referrer-Policy", "no-referrer"),
                            ("Cross-Origin-Resource-Policy", "same-origin"),
                            ("Cross-Origin-Opener-Policy", "same-origin")):
            self.send_header(name, value)
        self.end_headers()
        self.wfile.write(body)

    # ---- the stream: a WebSocket, of which a browser opens as many as it has tabs ----

    def _stream(self):
        key = self.headers.get("Sec-WebSocket-Key", "")
        if self.headers.get("Upgrade", "").lower() != "websocket" or not key:
            raise Refused(400, "a WebSocket is needed")
        accept = hashlib.sha1((key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11").encode()).digest()
        self.send_response(101)
        self.send_header("Upgrade", "websocket")
        self.send_header("Connection", "Upgrade")
        self.send_header("Sec-WebSocket-Accept", base64.b64encode(accept).decode())
        self.end_headers()
        self.close_connection = True
        tab = self.server.hub.open_tab()
        sender = threading.Thread(target=self._send_stream, args=(tab,), daemon=True)
        sender.start()
        try:
            self.connection.settimeout(None)
            while self._read_frame():
                pass
        except OSError:
            pass
        finally:
            self.server.hub.close_tab(tab)

    def _send_stream(self, tab):
        # The other direction is read without a limit of time, by the thread of the request.
        own = self.connection.dup()
        own.settimeout(None)
        own.setsockopt(socket.SOL_SOCKET, socket.SO_SNDTIMEO, struct.pack("ll", LONGEST_WRITE, 0))
        try:
            while (message := tab.take()) is not None:
                text = json.dumps(message).encode()
                size = struct.pack("!BBH", 0x81, 126, len(text)) if len(text) < 65536 else \
                    struct.pack("!BBQ", 0x81, 127, len(text))
                own.sendall(size + text if len(text) > 125 else bytes((0x81, len(text))) + text)
        except OSError:
            pass
        finally:
            try:
                own.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
            own.close()

    def _read_frame(self):
        """Reads what the page sends, of which only the end has a meaning."""
        head = self.rfile.read(2)
        if len(head) < 2 or head[0] & 15 == 8:
            return False
        size = head[1] & 127
        if size > 125:
            return False
        return len(self.rfile.read(size + 4)) == size + 4


def area_item(row):
    """An area in the list, as page.js changes it later."""
    facts = ""
    if "used" in row:
        facts = "%s%s" % ("%d of %d used, " % (row["used"], row["capacity"]) if row["capacity"] else "",
                          "archive: " + row["archive"])
    return '<li data-area="%s"><h3>%s</h3><p class="facts">%s</p></li>\n' % (
        html.escape(row["area"]), html.escape(row["area"]), html.escape(facts))


def batch_of(source, asked):
    """The lines of a batch of scctl for an edit of a record: add, set or del."""
    table, record = asked["table"], asked.get("id")
    fields = {field["field"]: field for field in source.fields(table)}
    if not isinstance(record, (int, type(None))) or asked["do"] not in ("add", "set", "del"):
        raise KeyError("id")
    name = "%s/%d" % (table, record) if record is not None else table
    if asked["do"] == "del":
        return ["del %s\n" % name]
    words = [assignment(fields[field], value) for field, value in asked["fields"].items()]
    if not words:
        raise Fault("nothing was changed")
    return ["%s %s %s\n" % (asked["do"], name, " ".join(words))]


def assignment(field, value):
    """FIELD=VALUE as a batch takes it. A text that is no line of valid text is given as hex."""
    if re.search("[\ud800-\udc7f\udd00-\udfff]", value):
        raise Fault("%s: this is no value" % field["field"])
    if re.search("[\x00-\x1f\x7f\udc80-\udcff]", value):
        if not field["kind"].endswith("text"):
            raise Fault("%s: this is no value" % field["field"])
        return "%s:hex=%s" % (field["field"], value.encode("utf-8", "surrogateescape").hex())
    return "'%s=%s'" % (field["field"], value.replace("'", "'\\''"))
