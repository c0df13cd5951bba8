"""The page in headless Chromium: what it shows, what it never does, and how it is used."""

import fcntl
import http.server
import json
import os
import signal
import subprocess
import threading
import time
import unittest

import axe
import world
from browser import Browser
from world import Page, fresh_areas, scctl

HOSTILE = "<img src=x onerror=pwned=1>"
VIEWS = ("#/", "#/t/lan_binds", "#/t/clients", "#/r/lan_binds/1", "#/r/aps/1", "#/a/lan_binds")


def fill():
    """A few records."""
    fresh_areas()
    scctl("batch", given=b"""
add lan_binds mac=00:11:22:33:44:55 ip=192.168.1.20 name=printer
add lan_binds mac=00:11:22:33:44:56 ip=192.168.1.21 name=camera
add aps ap_mac=02:00:00:00:00:01 group_info=lobby
add clients client_mac=02:00:00:00:00:02 text_52=phone
""")


def setUpModule():
    InBrowser.browser = Browser("--host-resolver-rules=MAP *.example 127.0.0.1")


def tearDownModule():
    InBrowser.browser.close()


class InBrowser(unittest.TestCase):
    browser = None

    def setUp(self):
        fill()

    def start(self, *options, environment=None):
        page = Page(*options, environment=environment)
        self.addCleanup(page.end)
        return page

    def open(self, page, view="", **how):
        """A tab that shows a view and has the stream."""
        tab = self.browser.tab(page.url + view, **how)
        self.addCleanup(tab.close)
        tab.wait("document.getElementById('link').textContent === 'live' && state.stream.begun")
        self.settle(tab)
        return tab

    def settle(self, tab):
        """Waits until what is in view is read."""
        tab.wait("view.kind && state.tables.length && (!view.load || (!view.late && view.filled))")

    def go(self, tab, view):
        tab.run("location.hash = %s" % json.dumps(view))
        tab.wait("document.querySelector('#main h2')")
        self.settle(tab)

    def assert_quiet(self, page, tab):
        """Nothing was asked of others, no script has failed, and nothing was refused by the policy."""
        asked = tab.requested()
        self.assertGreater(len(asked), 3)
        own = (page.origin + "/", page.origin.replace("http", "ws") + "/")
        self.assertEqual([url for url in asked if not url.startswith(own)], [])
        self.assertEqual(tab.complaints(), [])


class Shown(InBrowser):
    def test_a_change_is_in_the_table_and_in_the_stream(self):
        page = self.start()
        tab = self.open(page, "#/t/lan_binds")
        scctl("set", "lan_binds/2", "name=moved")
        tab.wait("document.querySelector('main tbody').rows[1].innerText.includes('moved')", 2)
        tab.wait("document.querySelector('#stream li').textContent.includes('camera → moved')", 2)
        scctl("add", "lan_binds/9", "mac=00:11:22:33:44:59", "ip=192.168.1.29")
        tab.wait("document.querySelector('main tbody').rows.length === 3")
        scctl("del", "lan_binds/1")
        tab.wait("document.querySelector('main tbody').rows.length === 2")
        self.assertEqual(tab.run("[...document.querySelectorAll('main tbody th')].map((c) => c.innerText.trim())"),
                         ["2", "9"])
        scctl("add", "lan_binds/5", "mac=00:11:22:33:44:60", "ip=192.168.1.30")
        tab.wait("document.querySelector('main tbody').rows.length === 3")
        self.assertEqual(tab.run("[...document.querySelectorAll('main tbody th')].map((c) => c.innerText.trim())"),
                         ["2", "5", "9"])
        self.assert_quiet(page, tab)

    def test_the_stream_has_all_candidates_and_no_secret(self):
        tab = self.open(self.start())
        tab.run("follow({table: 'wan', id: 1, what: 'change', time: new Date().toISOString(), "
                "fields: {psk: [null, null]}, author: [{pid: 11, uid: 0, program: 'httpd'}, {pid: 12}]})")
        tab.wait("document.querySelector('#stream li')?.textContent.includes('wan/1 psk <secret>')")
        self.assertIn("httpd (11) or process (12)", tab.run("document.querySelector('#stream li').textContent"))

    def test_areas_tell_use_and_whether_they_are_saved(self):
        scctl("save", "Lan")
        page = self.start()
        tab = self.open(page)
        text = "document.querySelector('[data-area=Lan]').innerText"
        tab.wait(text + ".includes('2 of 64 used, saved, archive good')")
        scctl("set", "lan_binds/2", "name=unsaved")
        tab.wait(text + ".includes('unsaved changes')", 8)
        tab.wait("document.querySelector('[data-part=saved]').innerText.includes('camera -> unsaved')", 8)
        with open("/var/dataconfig/config_lan.bin", "r+b") as archive:
            archive.truncate(100)
        scctl("set", "lan_binds/2", "name=again")
        tab.wait(text + ".includes('archive: bad')", 15)

    def test_what_differs_from_factory_is_what_scctl_says(self):
        ended = subprocess.run([world.SCCTL, "diff", "factory", "live"], stdout=subprocess.PIPE,
                               stderr=subprocess.PIPE, text=True)
        told = ended.stdout.splitlines()[0] if ended.stdout else ended.stderr.strip().removeprefix("scctl: ")
        tab = self.open(self.start())
        tab.wait("document.querySelector('[data-part=factory]').innerText.includes(%s)" % json.dumps(told))

    def test_changes_that_the_stream_has_lost_are_read(self):
        tab = self.open(self.start(), "#/t/lan_binds")
        # The stream is held back; what it says afterwards is that something was lost.
        tab.run("window.passOn = follow, follow = () => {}, 0")
        scctl("set", "lan_binds/2", "name=not in the stream")
        time.sleep(0.5)
        self.assertNotIn("not in", tab.run("document.getElementById('main').innerText"))
        tab.run("passOn({what: 'lost', count: 1, time: new Date().toISOString()})")
        tab.wait("document.getElementById('main').innerText.includes('not in the stream')")
        tab.wait("document.getElementById('stream').textContent.includes('1 changes were not seen')")
        # What scpage has dropped for this tab, and an area that was loaded, are read, too.
        for name, told in (("dropped", "take({tick: Date.now() / 1000, dropped: 7})"),
                           ("loaded", "passOn({what: 'load', area: 'Lan', time: new Date().toISOString()})"),
                           ("unnamed", "passOn({table: 'lan_binds', id: 2, what: 'change', fields: {}, unnamed: true, "
                            "time: new Date().toISOString()})"),
                           ("begun", "take({tick: Date.now() / 1000, stream: {begun: 1, remark: ''}})")):
            scctl("set", "lan_binds/2", "name=%s" % name)
            time.sleep(0.5)
            self.assertNotIn(name, tab.run("document.getElementById('main').innerText"))
            tab.run(told)
            tab.wait("document.getElementById('main').innerText.includes('%s')" % name)
        tab.wait("document.getElementById('stream').textContent.includes('7 changes were not seen')")

    def test_changes_during_a_read_are_shown_behind_it(self):
        tab = self.open(self.start(), "#/t/lan_binds")
        # An answer that is on its way until it is let go.
        tab.run("window.passOn = follow, follow = () => {}, window.real = ask, ask = async (path) => { "
                "const read = await real(path); await new Promise((done) => { window.letGo = done; }); return read; }, 0")
        tab.run("refresh(), 0")
        tab.wait("window.letGo")
        tab.run("passOn({table: 'lan_binds', id: 2, what: 'change', time: new Date().toISOString(), "
                "fields: {name: ['camera', 'meanwhile']}})")
        tab.run("window.letGo()")
        tab.wait("document.querySelector('main tbody').rows[1].innerText.includes('meanwhile')", 3)
        # What is asked for meanwhile is read afterwards.
        tab.run("window.letGo = null, refresh(), 0")
        tab.wait("window.letGo")
        scctl("set", "lan_binds/2", "name=afterwards")
        tab.run("ask = real, refresh(), letGo()")
        tab.wait("document.querySelector('main tbody').rows[1].innerText.includes('afterwards')", 3)

    def test_a_member_that_holds_no_longer_is_empty_and_a_secret_stays_one(self):
        wrapper = "/var/scctl_with_overlay"
        with open(wrapper, "w") as file:
            file.write("#!/bin/sh\nexec '%s' \"$@\" --overlay /var/members.json\n" % world.SCCTL)
        os.chmod(wrapper, 0o755)
        with open("/var/members.json", "w") as file:
            json.dump({"overlay": 1, "at": {"Wan.sections.settings": "t"}, "types": {"t": {"size": 16, "members": {
                "mode": {"at": 0, "kind": "unsigned", "size": 1},
                "number": {"at": 1, "kind": "unsigned", "size": 1, "if": {"mode": 1}},
                "pin": {"at": 2, "kind": "text", "size": 4, "secret": True, "if": {"mode": 1}},
                "psk": {"at": 6, "kind": "text", "size": 8, "secret": True}}}}}, file)
        option = ("--overlay", "/var/members.json")
        scctl("set", "wan/1", "mode=1", "number=7", "pin=1234", "psk=planted", *option)
        tab = self.open(self.start(environment={"SCCTL": wrapper}), "#/t/wan")
        cells = "[...document.querySelector('main tbody tr').cells].slice(1).map((c) => c.textContent).join('|')"
        tab.wait(cells + " === '1|7|<secret>|<secret>'")
        number = "document.querySelector('main tbody tr').cells[2].textContent"
        tab.run("""window.numbers = []; new MutationObserver(() => numbers.push(%s)).observe(
            document.querySelector('main tbody'), {subtree: true, childList: true, characterData: true}), 0""" % number)
        scctl("set", "wan/1", "psk=another", "number=8", *option)
        tab.wait(cells + " === '1|8|<secret>|<secret>'")
        scctl("set", "wan/1", "mode=0", *option)
        tab.wait(cells + " === '0|||<secret>'")
        self.assertEqual(set(tab.run("numbers")), {"8", ""})
        self.go(tab, "#/r/wan/1")
        rows = "[...document.querySelectorAll('main tbody tr')].map((r) => r.dataset.field).join()"
        tab.wait(rows + ".startsWith('mode,psk,spare')")
        scctl("set", "wan/1", "mode=1", *option)
        tab.wait("%s.includes('number') && %s.includes('pin') && !%s.includes('spare_1,')" % (rows, rows, rows), 3)
        scctl("set", "wan/1", "mode=0", *option)
        tab.wait("!%s.includes('number') && !%s.includes('pin')" % (rows, rows), 3)

    def test_a_stream_that_pauses_shows_all_when_it_goes_on(self):
        tab = self.open(self.start())
        lines = "document.querySelectorAll('#stream li').length"
        before = tab.run(lines)
        tab.run("document.getElementById('pause').click()")
        for name in ("one", "two"):
            scctl("set", "lan_binds/2", "name=%s" % name)
            tab.wait("log.some((row) => row.said.includes('%s'))" % name)
        time.sleep(0.2)
        self.assertEqual(tab.run(lines), before)
        tab.run("document.getElementById('pause').click()")
        tab.wait("%s === %d" % (lines, before + 2))

    def test_changes_of_before_are_in_the_stream_alone(self):
        tab = self.open(self.start(), "#/t/lan_binds")
        tab.run("follow({old: true, table: 'lan_binds', id: 2, what: 'change', time: new Date().toISOString(), "
                "fields: {name: ['camera', 'former']}})")
        tab.wait("document.getElementById('stream').textContent.includes('camera → former')")
        time.sleep(0.3)
        self.assertNotIn("former", tab.run("document.getElementById('main').innerText"))

    def test_search_and_filter_leave_what_has_the_text(self):
        page = self.start()
        tab = self.open(page, "#/t/lan_binds")
        shown = "[...document.querySelectorAll('main tbody tr')].filter((r) => !r.hidden).length"
        tab.run("document.querySelector('main input').focus()")
        tab.type("CAMERA")
        self.assertEqual(tab.run(shown), 1)
        scctl("set", "lan_binds/1", "name=camera 2")
        tab.wait(shown + " === 2")
        tab.run("document.getElementById('only').focus()")
        tab.type("aps/")
        scctl("set", "lan_binds/1", "name=x")
        scctl("set", "aps/1", "group_info=hall")
        tab.wait("document.querySelectorAll('#stream li').length === 1")
        self.assertIn("lobby → hall", tab.run("document.getElementById('stream').textContent"))

    def test_each_field_has_its_bytes_beside_it(self):
        page = self.start()
        tab = self.open(page, "#/r/lan_binds/1")
        part = "document.querySelector('.part[data-field=%s]')"
        self.assertEqual(tab.run(part % "ip" + ".innerText"), "36 ip c0 a8 01 14")
        self.assertEqual(tab.run(part % "name" + ".innerText"), "48 name 70 72 69 6e 74 65 72 + 193 × 00")
        colour = "getComputedStyle(%s).backgroundColor"
        self.assertEqual(tab.run(colour % (part % "ip")),
                         tab.run(colour % "document.querySelector('tr[data-field=ip] th')"))
        self.assertNotEqual(tab.run(colour % (part % "ip")), tab.run(colour % (part % "mac")))
        scctl("set", "lan_binds/1", "ip=192.168.1.22")
        tab.wait((part % "ip") + ".innerText === '36 ip c0 a8 01 16'", 3)

    def test_holders_of_a_record_are_named(self):
        page = self.start()
        tab = self.open(page, "#/t/lan_binds")
        with open("/var/lock_store/lan_conf_lock", "r+b") as file:
            fcntl.lockf(file, fcntl.LOCK_EX, 1, 2)
            tab.wait("document.querySelector('main tbody th').innerText.includes('(%d) holds')" % os.getpid(), 5)
        tab.wait("document.querySelector('main tbody th').innerText.trim() === '1'", 5)

    def test_ten_tabs_are_live_with_one_watcher(self):
        page = self.start()
        tabs = [self.browser.tab(page.url + "#/t/lan_binds") for _ in range(10)]
        for tab in tabs:
            self.addCleanup(tab.close)
            tab.wait("document.querySelectorAll('main tbody tr').length === 2 && state.stream.begun")
        scctl("set", "lan_binds/2", "name=for all")
        for tab in tabs:
            tab.call("Page.bringToFront")
            tab.wait("document.querySelector('main tbody').innerText.includes('for all')", 3)
        self.assertEqual(len(world.watchers(page)), 1)


class Hostile(InBrowser):
    def test_names_are_shown_and_not_executed(self):
        tables = [row["table"] for row in json.loads(scctl("tables", "--json"))]
        texts = {}
        for table in tables:
            fields = json.loads(scctl("fields", table, "--json"))
            found = [f for f in fields if f["kind"] == "text"]
            if not found:
                continue
            # As much of the hostile text as fits, then bytes that are no UTF-8 and an end of a line.
            words = ["%s:hex=%s" % (f["field"], (HOSTILE.encode()[:f["bytes"] - 3] + b"\xff\n").hex()) for f in found]
            texts[table] = [HOSTILE[:f["bytes"] - 3] + "\\xff\\x0a" for f in found]
            keys = {"client_mac": "02:00:00:00:00:09", "ap_mac": "02:00:00:00:00:09", "mac": "02:00:00:00:00:09",
                    "ip": "192.168.1.99"}
            words += ["%s=%s" % (f["field"], keys[f["field"]]) for f in fields if f["field"] in keys]
            scctl("add", "%s/10" % table, *words)
        self.assertGreater(len(texts), 10)
        scctl("save", "Lan")
        page = self.start("--edit")
        tab = self.open(page)
        for table, wanted in texts.items():
            self.go(tab, "#/t/" + table)
            tab.wait("document.querySelector('main tbody tr')")
            shown = tab.run("[...document.querySelectorAll('main tbody tr:last-child td')].map((c) => c.textContent)")
            for text in wanted:
                self.assertIn(text, shown, table)
            self.go(tab, "#/r/%s/10" % table)
            self.assertIn(HOSTILE[:6], " ".join(tab.run("[...document.querySelectorAll('main td input')].map((i) => i.value)")))
        scctl("set", "lan_binds/10", "name=a\u202etxt\u2066\u200f\u2028\u061cb")
        self.go(tab, "#/t/lan_binds")
        tab.wait("document.querySelector('main tbody tr:last-child').innerText.includes("
                 "'a\\\\u202etxt\\\\u2066\\\\u200f\\\\u2028\\\\u061cb')")
        scctl("set", "lan_binds/10", "name=%s" % HOSTILE)
        self.go(tab, "#/")
        tab.wait("document.getElementById('stream').textContent.includes('<img src=x')")
        tab.wait("document.getElementById('main').innerText.includes('<img src=x')")
        self.assertEqual(tab.run("[typeof pwned, document.querySelectorAll('img, iframe, svg, body script').length]"),
                         ["undefined", 0])
        self.assert_quiet(page, tab)

    def test_another_site_gets_and_changes_nothing(self):
        page = self.start("--edit")
        script = """
          const got = [];
          const body = JSON.stringify({do: 'del', table: 'lan_binds', id: 1});
          for (const path of ['/try', '/confirm', '/revert', '/']) {
            for (const how of [{mode: 'no-cors', headers: {'Content-Type': 'text/plain'}},
                               {headers: {'Content-Type': 'application/json'}}, {credentials: 'include'}]) {
              try {
                const answer = await fetch('%(to)s' + path, {method: 'POST', body, ...how});
                if (answer.type !== 'opaque') got.push(path);
              } catch (error) {}
            }
          }
          for (const path of ['/', '/table?name=lan_binds', '/record?table=lan_binds&id=1']) {
            try { got.push(await (await fetch('%(to)s' + path)).text()); } catch (error) {}
          }
          await new Promise((done) => {
            const socket = new WebSocket('%(to)s/stream?token='.replace('http', 'ws'));
            socket.onopen = () => got.push('stream');
            socket.onclose = socket.onerror = done;
          });
          const script = document.createElement('script');
          script.src = '%(to)s/table?name=lan_binds';
          document.body.append(script);
          const form = document.createElement('form');
          Object.assign(form, {method: 'post', action: '%(to)s/try', enctype: 'text/plain', target: 'frame'});
          const input = Object.assign(document.createElement('input'), {name: body.slice(0, -1) + ',"x":"', value: '"}'});
          form.append(input);
          const frame = Object.assign(document.createElement('iframe'), {name: 'frame'});
          document.body.append(frame, form);
          form.submit();
          await new Promise((done) => setTimeout(done, 500));
          return got;"""

        class Site(http.server.BaseHTTPRequestHandler):
            def do_GET(self):
                self.send_response(200)
                self.send_header("Content-Type", "text/html")
                self.end_headers()
                self.wfile.write(b"<!DOCTYPE html><body>another site")

            def log_message(self, *_):
                pass

        site = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Site)
        self.addCleanup(site.server_close)
        self.addCleanup(site.shutdown)
        threading.Thread(target=site.serve_forever, daemon=True).start()
        before = scctl("export"), scctl("log")
        tab = self.browser.tab("http://site.example:%d/" % site.server_port)
        self.addCleanup(tab.close)
        tab.wait("document.body.textContent === 'another site'")
        self.assertEqual(tab.run("(async () => {%s})()" % (script % {"to": page.origin})), [])
        self.assertEqual((scctl("export"), scctl("log")), before)
        # A name of the site that now means this machine.
        rebound = self.browser.tab(page.url.replace("127.0.0.1", "site.example"))
        self.addCleanup(rebound.close)
        rebound.wait("document.body.textContent === 'this is no name of scpage'")


class Lost(InBrowser):
    def test_a_page_without_connection_says_since_when_within_3_s(self):
        for end in (signal.SIGTERM, signal.SIGSTOP):
            page = self.start()
            tab = self.open(page, "#/t/lan_binds")
            self.assertEqual(tab.run("document.getElementById('link').textContent"), "live")
            page.child.send_signal(end)
            try:
                began = time.monotonic()
                text = tab.wait("document.getElementById('link').textContent.startsWith('stale since') && "
                                "document.getElementById('link').textContent", 5)
                self.assertLess(time.monotonic() - began, 3)
                self.assertRegex(text, r"^stale since \d\d:\d\d:\d\d: no connection to scpage$")
            finally:
                if end == signal.SIGSTOP:
                    page.child.send_signal(signal.SIGCONT)
            if end == signal.SIGSTOP:
                tab.wait("document.getElementById('link').textContent === 'live'", 5)

    def test_a_router_that_does_not_answer_is_told_with_the_reason(self):
        tab = self.open(self.start())
        tab.run("take({tick: Date.now() / 1000, link: {live: false, since: Date.now() / 1000, why: 'no answer'}})")
        self.assertRegex(tab.run("document.getElementById('link').textContent"),
                         r"^stale since \d\d:\d\d:\d\d: no answer$")
        self.assertEqual(tab.run("document.documentElement.classList.contains('stale')"), True)
        tab.run("take({tick: Date.now() / 1000, link: {live: true}})")
        self.assertEqual(tab.run("document.getElementById('link').textContent"), "live")

    def test_changes_that_a_page_has_missed_are_shown_when_it_is_back(self):
        page = self.start()
        tab = self.open(page, "#/t/lan_binds")
        port = page.host.split(":")[1]
        page.child.send_signal(signal.SIGTERM)
        page.child.wait(5)
        tab.wait("document.getElementById('link').className === 'bad'")
        scctl("set", "lan_binds/2", "name=missed")
        again = self.start("--port", port)
        # It has another token: the user opens the new URL.
        tab.call("Page.navigate", url=again.url + "#/t/lan_binds")
        tab.wait("document.querySelector('main tbody')?.innerText.includes('missed')")


class Used(InBrowser):
    def test_a_field_in_editing_is_not_overwritten(self):
        page = self.start("--edit")
        tab = self.open(page, "#/r/lan_binds/1")
        name, ip = ("document.querySelector('tr[data-field=%s] input')" % field for field in ("name", "ip"))
        tab.run(name + ".focus()")
        tab.run(name + ".select()")
        tab.type("half typ")
        scctl("set", "lan_binds/1", "name=by another", "ip=192.168.1.77")
        tab.wait(ip + ".value === '192.168.1.77'", 3)
        self.assertEqual(tab.run(name + ".value"), "half typ")
        self.assertIn("now: by another", tab.run(name + ".parentNode.innerText"))
        # Also when the focus is elsewhere, and while the field is only looked at.
        tab.run(ip + ".focus()")
        scctl("set", "lan_binds/1", "name=third", "ip=192.168.1.78")
        tab.wait(ip + ".parentNode.innerText.includes('now: 192.168.1.78')", 3)
        self.assertEqual(tab.run("[%s.value, %s.value]" % (name, ip)), ["half typ", "192.168.1.77"])
        tab.run("[...document.querySelectorAll('main button')].find((b) => b.textContent === 'Discard').click()")
        self.assertEqual(tab.run("[%s.value, %s.value]" % (name, ip)), ["third", "192.168.1.78"])
        # Then they follow again, and of what is sent only what was typed is part.
        tab.run("document.activeElement.blur()")
        scctl("set", "lan_binds/1", "name=fourth")
        tab.wait(name + ".value === 'fourth'", 3)
        tab.run(name + ".focus()")
        tab.type(" typed")
        tab.run(ip + ".focus()")
        scctl("set", "lan_binds/1", "ip=192.168.1.79")
        tab.wait(ip + ".parentNode.innerText.includes('now: 192.168.1.79')", 3)
        tab.key("Enter")
        tab.wait("document.getElementById('left')")
        self.assertEqual(scctl("get", "lan_binds/1.ip"), "192.168.1.79\n")
        self.assertIn("typed", scctl("get", "lan_binds/1.name"))
        # What was sent is typed no longer.
        tab.run("document.activeElement.blur()")
        scctl("revert")
        tab.wait(name + ".value === 'fourth'", 3)

    def test_a_deletion_is_a_try_and_what_is_refused_is_told(self):
        page = self.start("--edit")
        tab = self.open(page, "#/r/lan_binds/2")
        remove = "[...document.querySelectorAll('main button')].find((b) => b.textContent === 'Try to delete').click()"
        said, gone = ("document.getElementById('said').textContent", "document.querySelector('main p[role=status]').textContent")
        tab.run(remove)
        tab.wait("document.getElementById('left')")
        self.assertEqual([row["id"] for row in json.loads(scctl("list", "lan_binds", "--json"))], [1])
        tab.wait(gone + ".includes('lan_binds/2')")
        self.assertEqual(tab.run(said), "")
        tab.run(remove)
        tab.wait(said + ".includes('try')", 5)
        scctl("revert")
        tab.wait(gone + " === ''", 5)

    def test_it_can_be_used_by_keyboard_alone(self):
        page = self.start("--edit")
        tab = self.open(page)

        def reach(what, most=120):
            for _ in range(most):
                tab.key("Tab")
                if tab.run("Boolean((%s)(document.activeElement))" % what):
                    return
            self.fail("not reached by Tab: " + what)

        reach("(e) => e.className === 'skip'")
        reach("(e) => e.textContent === 'lan_binds'")
        tab.key("Enter")
        tab.wait("document.querySelectorAll('main tbody tr').length === 2")
        reach("(e) => e.textContent === '2'")
        tab.key("Enter")
        tab.wait("document.querySelector('tr[data-field=name] input')?.value === 'camera'")
        reach("(e) => e.closest('tr[data-field=name]')")
        tab.type("typed ")
        reach("(e) => e.closest('label')?.textContent.startsWith('Why')")
        tab.type("ticket 12")
        tab.key("Enter")
        tab.wait("document.getElementById('left')")
        self.assertIn("typed", json.dumps(json.loads(scctl("try", "--status", "--json"))["changes"]))
        # The banner of the try stands before the view.
        tab.run("document.querySelector('.skip').focus()")
        reach("(e) => e.textContent === 'Confirm'")
        tab.key("Enter")
        tab.wait("document.getElementById('try').hidden")
        self.assertIn("typed", scctl("get", "lan_binds/2.name"))
        self.assertEqual(json.loads(scctl("log", "--json"))[0]["note"], "ticket 12")

    def test_the_countdown_is_that_of_the_try(self):
        page = self.start("--edit")
        tab = self.open(page)
        scctl("try", "--timeout", "20", "batch", "-", given=b"set aps/1 group_info=tried\n")
        tab.wait("document.getElementById('left')", 3)
        for _ in range(15):
            shown = int(tab.run("document.getElementById('left').textContent.match(/\\d+/)[0]"))
            told = json.loads(scctl("try", "--status", "--json"))["left"]
            self.assertLessEqual(abs(shown - told), 1)
            time.sleep(0.1)
        scctl("try", "--timeout", "100")
        tab.wait("secondsLeft() > 95", 3)
        tab.run("[...document.querySelectorAll('#try button')].find((b) => b.textContent === 'Revert').click()")
        tab.wait("document.getElementById('try').hidden", 3)
        self.assertEqual(scctl("get", "aps/1.group_info"), "lobby\n")
        tab.wait("document.getElementById('said').textContent.startsWith('The try has ended')", 3)

    def test_without_the_option_there_is_nothing_to_edit(self):
        page = self.start()
        tab = self.open(page, "#/r/lan_binds/1")
        scctl("try", "batch", "-", given=b"set aps/1 group_info=tried\n")
        tab.wait("document.getElementById('left')", 3)
        self.assertEqual(tab.run("document.querySelectorAll('main input, main button, #try button').length"), 0)

    def test_it_fits_320_pixels_and_axe_finds_nothing(self):
        source = axe.script()
        page = self.start("--edit")
        scctl("try", "batch", "-", given=b"set aps/1 group_info=tried\n")
        # Dark differs in colours alone, and these views have all of them.
        for width, dark, views in ((320, False, VIEWS), (1280, False, VIEWS), (1280, True, VIEWS[1:4:2])):
            tab = self.open(page, width=width, dark=dark)
            tab.wait("document.getElementById('left')", 3)
            for view in views:
                self.go(tab, view)
                self.assertEqual(tab.run("document.documentElement.scrollWidth"), width, view)
                self.assertEqual(axe.findings(tab, source), [], "%s at %d" % (view, width))

    def test_axe_would_find_a_field_without_a_name(self):
        tab = self.open(self.start())
        tab.run("document.getElementById('main').append(document.createElement('input'))")
        self.assertIn("label", " ".join(axe.findings(tab, axe.script())))


if __name__ == "__main__":
    unittest.main()
