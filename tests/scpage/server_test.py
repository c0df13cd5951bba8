"""scpage without a browser: its first answer, rights, sources, the stream to tabs, edits and its end."""

import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import tempfile
import time
import unittest

import world
from stream import Stream
from world import ROOT, SCCTL, Page, children_of, fresh_areas, scctl, wait_for, watchers, words_of

HOSTILE = "<img src=x onerror=alert(1)>'\"&amp; \u202ertl"
AREAS = [row["area"] for row in json.loads(scctl("areas", "--json"))]


class FirstAnswer(unittest.TestCase):
    def test_names_all_areas_without_a_script(self):
        fresh_areas()
        scctl("add", "lan_binds", "mac=00:11:22:33:44:55", "ip=192.168.1.20")
        with Page() as page:
            status, headers, text = page.request("GET", page.url[len(page.origin):])
        self.assertEqual(status, 200)
        self.assertEqual(re.findall(r"<h3>(\w+)</h3>", text), AREAS)
        self.assertEqual(len(AREAS), 17)
        self.assertIn("1 of 64 used, archive: none", text)
        self.assertIn("default-src 'none'", headers["Content-Security-Policy"])
        self.assertNotIn("unsafe", headers["Content-Security-Policy"])
        self.assertIn("frame-ancestors 'none'", headers["Content-Security-Policy"])
        self.assertEqual([headers[name] for name in ("X-Frame-Options", "X-Content-Type-Options", "Cache-Control")],
                         ["DENY", "nosniff", "no-store"])

    def test_tells_when_areas_do_not_exist(self):
        scctl("remove", "--all")
        with Page() as page:
            self.assertEqual(re.findall(r"<h3>(\w+)</h3>", page.request("GET", page.url[len(page.origin):])[2]),
                             AREAS)
            self.assertIn("fault", page.json("/table?name=lan_binds"))

    def test_files_of_the_page_have_at_most_60_kb(self):
        files = list((world.ROOT / "scpage/page").iterdir())
        self.assertGreaterEqual(len(files), 3)
        self.assertLessEqual(sum(path.stat().st_size for path in files), 60 * 1024)


class Rights(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        fresh_areas()
        scctl("add", "lan_binds", "mac=00:11:22:33:44:55", "ip=192.168.1.20", "name=kept")
        cls.log = scctl("log")
        cls.page = Page("--edit")
        cls.edit = {"do": "set", "table": "lan_binds", "id": 1, "fields": {"name": "changed"}}

    @classmethod
    def tearDownClass(cls):
        cls.page.end()

    def assert_refused(self, ended):
        self.assertEqual(ended[0], 403)
        self.assertEqual(scctl("get", "lan_binds/1.name"), "kept\n")
        self.assertEqual(scctl("log"), self.log)

    def test_a_post_needs_token_origin_host_and_type(self):
        for name in ("X-Token", "Origin", "Content-Type", "Host"):
            with self.subTest(name):
                self.assert_refused(self.page.request("POST", "/try", self.edit, without=(name,)))
        for name, value in (("X-Token", "x"), ("Origin", "http://evil.example"), ("Origin", "null"),
                            ("Host", "evil.example:80"), ("Content-Type", "text/plain")):
            with self.subTest("%s: %s" % (name, value)):
                self.assert_refused(self.page.request("POST", "/try", self.edit, {name: value}))

    def test_a_body_that_is_too_long_is_not_read(self):
        self.assertEqual(self.page.request("POST", "/try", dict(self.edit, more="x" * (1 << 17)))[0], 413)
        self.assertEqual(scctl("get", "lan_binds/1.name"), "kept\n")

    def test_a_rebound_name_gets_nothing(self):
        for path in ("/", self.page.url[len(self.page.origin):], "/page.js", "/table?name=lan_binds"):
            status, _, text = self.page.request("GET", path, headers={"Host": "evil.example"})
            self.assertEqual((status, text), (403, "this is no name of scpage"))

    def test_data_need_the_token(self):
        for path in ("/table?name=lan_binds", "/record?table=lan_binds&id=1"):
            self.assertEqual(self.page.request("GET", path, without=("X-Token",))[0], 403)
            self.assertEqual(self.page.request("GET", path)[0], 200)
        text = self.page.request("GET", "/", without=("X-Token",))[2]
        self.assertNotIn(self.page.token, text)
        self.assertNotIn("used", text)
        self.assertEqual(re.findall(r"<h3>(\w+)</h3>", text), AREAS)

    def test_the_stream_needs_token_origin_and_host(self):
        for wrong in ({"token": ""}, {"token": "x"}, {"origin": "http://evil.example"}, {"host": "evil.example"}):
            stream = Stream(self.page, **wrong)
            self.assertEqual(stream.status, 403)
            stream.close()
        stream = Stream(self.page)
        self.assertEqual(stream.status, 101)
        stream.close()

    def test_nothing_listens_on_other_addresses(self):
        port = "%04X" % int(self.page.host.split(":")[1])
        listening = [line.split()[1] for table in ("/proc/net/tcp", "/proc/net/tcp6")
                     for line in pathlib.Path(table).read_text().splitlines()[1:]
                     if line.split()[1].endswith(":" + port) and line.split()[3] == "0A"]
        self.assertEqual(listening, ["0100007F:" + port])

    def test_an_unknown_table_or_field_reaches_no_command(self):
        for edit, status in (({"do": "set", "table": "--help", "id": 1, "fields": {"name": "x"}}, 502),
                             ({"do": "set", "table": "lan_binds", "id": 1, "fields": {"x\ndel lan_binds/1": "y"}}, 400),
                             ({"do": "init", "table": "lan_binds", "id": 1, "fields": {"name": "x"}}, 400),
                             ({"do": "del", "table": "lan_binds", "id": "1 lan_binds/2", "fields": {}}, 400),
                             ([], 400), (1, 400)):
            self.assertEqual(self.page.post("/try", edit)[0], status, edit)
        self.assertEqual(scctl("get", "lan_binds/1.name"), "kept\n")


class ReadOnly(unittest.TestCase):
    def test_an_edit_is_refused_without_the_option(self):
        fresh_areas()
        with Page() as page:
            for path in ("/try", "/confirm", "/revert"):
                self.assertEqual(page.post(path, {"do": "add", "table": "ip_groups",
                                                  "fields": {"leading_text": "x"}})[0], 403)
        self.assertEqual(scctl("list", "ip_groups", "--json").strip(), "[]")


class Overlay(unittest.TestCase):
    """A router with names for the bytes of its firmware's own programs."""

    def test_a_record_has_its_members_and_no_secret(self):
        fresh_areas()
        wrapper = "/var/scctl_with_overlay"
        with open(wrapper, "w") as file:
            file.write("#!/bin/sh\nexec '%s' \"$@\" --overlay '%s/examples/vendor/vendor.json'\n" % (SCCTL, ROOT))
        os.chmod(wrapper, 0o755)
        option = ("--overlay", "%s/examples/vendor/vendor.json" % ROOT)
        scctl("set", "wan/1", "magic=0x314e4157", "mode=WAN_PPPOE", *option)
        scctl("set", "wan/1", "mtu=1400", "pppoe.password=plAnted-Secret", *option)
        with Page(environment={"SCCTL": wrapper}) as page:
            answers = [page.request("GET", path) for path in ("/record?table=wan&id=1", "/table?name=wan", "/record?table=wan&id=2")]
            self.assertEqual([status for status, _, _ in answers], [200] * 3)
            for _, _, text in answers:
                self.assertNotIn("plAnted", text)
                self.assertNotIn(b"plAnted".hex(), text)
            named, other = json.loads(answers[0][2]), json.loads(answers[2][2])
        self.assertEqual((named["values"]["mtu"], named["values"]["pppoe.password"]), (1400, None))
        self.assertEqual({field["field"] for field in named["fields"]} | {"id"}, set(named["values"]))
        self.assertEqual([field["field"] for field in other["fields"]], ["settings"])


class Edits(unittest.TestCase):
    def setUp(self):
        fresh_areas()
        scctl("add", "lan_binds", "mac=00:11:22:33:44:55", "ip=192.168.1.20", "name=before")
        self.page = Page("--edit")
        self.addCleanup(self.page.end)

    def edit(self, do, **more):
        status, text = self.page.post("/try", {"do": do, "table": "lan_binds", **more})
        self.assertEqual(status, 200, text)

    def test_each_edit_is_a_try(self):
        self.edit("set", id=1, fields={"name": HOSTILE}, seconds=50)
        running = json.loads(scctl("try", "--status", "--json"))
        self.assertEqual(running["changes"][0]["fields"], {"name": ["before", HOSTILE]})
        self.assertLessEqual(running["left"], 50)
        self.assertEqual(self.page.post("/revert")[0], 200)
        self.assertEqual(scctl("get", "lan_binds/1.name"), "before\n")
        self.edit("add", fields={"mac": "00:11:22:33:44:56", "ip": "192.168.1.21"})
        self.assertEqual(self.page.post("/confirm")[0], 200)
        self.assertIn('"id": 2', scctl("list", "lan_binds", "--json"))
        self.edit("del", id=1)
        self.assertNotIn('"id": 1', scctl("list", "lan_binds", "--json"))
        status, text = self.page.post("/try", {"do": "del", "table": "lan_binds", "id": 2})
        self.assertEqual(status, 502)  # a try runs
        self.assertIn("try", text)

    def test_a_note_is_logged_with_its_edit(self):
        note = "it's \"down\"; $(reboot) --json é"
        self.edit("set", id=1, fields={"name": "x"}, note=note)
        self.page.post("/confirm")
        self.assertEqual(json.loads(scctl("log", "--json"))[0]["note"], note)
        for note in ("a\nb", "\0", "\ud800", "x" * 101, 7, None):
            status, _ = self.page.post("/try", {"do": "del", "table": "lan_binds", "id": 1, "note": note})
            self.assertEqual(status, 400, note)

    def test_bytes_that_are_no_line_of_text_arrive(self):
        for text in ("\udcff\udc80x", "a\tb\x1b[31m\n", "'; del lan_binds/1 #", "$(reboot)`id`\\ \"", ""):
            self.edit("set", id=1, fields={"name": text})
            self.page.post("/confirm")
            self.assertEqual(json.loads(scctl("get", "lan_binds/1", "--json"))["name"], text)

    def test_a_refusal_is_told(self):
        status, text = self.page.post("/try", {"do": "set", "table": "lan_binds", "id": 1, "fields": {"ip": "x"}})
        self.assertEqual(status, 502)
        self.assertIn("ip", json.loads(text)["fault"])
        status, text = self.page.post("/try", {"do": "set", "table": "lan_binds", "id": 1, "fields": {"ip": "1\n2"}})
        self.assertEqual(status, 502)

    def test_the_stream_has_the_try_and_its_end(self):
        stream = Stream(self.page)
        self.addCleanup(stream.close)
        self.edit("set", id=1, fields={"name": "x"}, seconds=3)
        until = stream.until(lambda m: m.get("try"))["until"]
        self.assertAlmostEqual(until - time.time(), 3, delta=1.1)
        ended = stream.until(lambda m: m.get("ended"))
        self.assertAlmostEqual(ended["at"], until, delta=2)
        self.assertTrue(ended["text"])


class Records(unittest.TestCase):
    def test_bytes_and_their_fields_are_those_of_the_record(self):
        fresh_areas()
        scctl("add", "lan_binds/7", "mac=00:11:22:33:44:55", "ip=192.168.1.20", "name=x", "flag=3")
        scctl("add", "aps/300", "ap_mac=02:00:00:00:00:01", "group_info=%s" % ("g" * 50))
        with Page() as page:
            record = page.json("/record?table=lan_binds&id=7")
            ap = page.json("/record?table=aps&id=300")
            self.assertIn("fault", page.json("/record?table=lan_binds&id=8"))
        data = bytes.fromhex(record["bytes"])
        self.assertEqual(len(data), 748)
        place = {part["field"]: data[part["at"]:part["at"] + part["size"]] for part in record["parts"]}
        self.assertEqual(place["mac"], b"00:11:22:33:44:55".ljust(20, b"\0"))
        self.assertEqual(place["ip"], bytes((192, 168, 1, 20)))
        self.assertEqual(place["flag"], b"\3")
        self.assertEqual(place["name"], b"x".ljust(200, b"\0"))
        self.assertEqual(data[:4], b"\7\0\0\0")  # the id
        self.assertEqual(sum(part["size"] for part in record["parts"]), 748)
        self.assertEqual(len(ap["bytes"]), 2 * 12304)
        self.assertEqual([part["size"] for part in ap["parts"] if part["field"] == "group_info"], [50])


class Tabs(unittest.TestCase):
    def setUp(self):
        fresh_areas()
        scctl("add", "aps", "ap_mac=02:00:00:00:00:01")
        self.page = Page()
        self.addCleanup(self.page.end)
        wait_for(lambda: watchers(self.page), "a watcher")
        time.sleep(0.3)

    def test_ten_tabs_share_one_watcher(self):
        tabs = [Stream(self.page) for _ in range(10)]
        scctl("set", "aps/1", "group_info=for all")
        for tab in tabs:
            change = tab.until(lambda m: [c for c in m.get("changes", []) if c["table"] == "aps"])[0]
            self.assertEqual(change["fields"]["group_info"][1], "for all")
        self.assertEqual(len(watchers(self.page)), 1)
        for tab in tabs:
            tab.close()

    def test_a_tab_that_does_not_read_delays_nobody(self):
        stopped, reading = Stream(self.page), Stream(self.page)
        self.addCleanup(reading.close)
        self.addCleanup(stopped.close)
        lines = "".join("set aps/1 group_info=%s%d\n" % ("x" * 40, n) for n in range(300))
        seen = []
        for last in range(8):
            scctl("batch", given=lines.encode())
            scctl("set", "aps/1", "group_info=end %d" % last)
            began = time.monotonic()
            reading.until(lambda m: [c for c in m.get("changes", []) if c["fields"].get("group_info", [0, 0])[1]
                                     == "end %d" % last], 5000)
            seen.append(time.monotonic() - began)
        self.assertLess(max(seen), 1)

    def test_a_new_tab_gets_more_than_64_kb_of_changes(self):
        for number in range(1, 33):
            scctl("add", "lan_binds/%d" % number, "mac=02:00:00:00:00:%02x" % number, "ip=192.168.1.%d" % number)
        reading = Stream(self.page)
        self.addCleanup(reading.close)
        # Some at a time: what waits for the reader of watch is limited, too.
        for number in range(25):
            first = number % 4 * 8 + 1
            scctl("batch", given="".join("set lan_binds/%d name=%s%d\n" % (n, "x" * 190, number)
                                         for n in range(first, first + 8)).encode())
            reading.until(lambda m: [c for c in m.get("changes", []) if c.get("id") == first + 7 and
                                     c["fields"].get("name", ["", ""])[1].endswith("x%d" % number)], 20)
        late = Stream(self.page)
        self.addCleanup(late.close)
        changes = late.until(lambda m: m.get("changes"))
        self.assertEqual(len(changes), 200)
        self.assertGreater(len(json.dumps(changes)), 65536)
        # What follows is read from its beginning.
        scctl("set", "aps/1", "group_info=after it")
        late.until(lambda m: [c for c in m.get("changes", []) if c["table"] == "aps"])

    def test_without_a_tab_nothing_is_asked(self):
        calls = "/var/calls"
        wrapper = "/var/scctl_that_notes"
        with open(wrapper, "w") as file:
            file.write("#!/bin/sh\necho \"$*\" >>%s\nexec '%s' \"$@\"\n" % (calls, SCCTL))
        os.chmod(wrapper, 0o755)
        pathlib.Path(calls).write_text("")
        with Page(environment={"SCCTL": wrapper}) as page:
            asked = lambda: pathlib.Path(calls).read_text().splitlines()
            stream = Stream(page)
            stream.until(lambda m: m.get("areas"))
            stream.close()
            time.sleep(3)
            before = asked()
            self.assertIn("locks --json", before)
            time.sleep(3)
            self.assertEqual(asked(), before)
            # It begins again with the next tab.
            stream = Stream(page)
            wait_for(lambda: len(asked()) > len(before) + 2, "a look")
            stream.close()

    def test_a_watcher_that_ends_is_started_again(self):
        first = watchers(self.page)[0]
        stream = Stream(self.page)
        self.addCleanup(stream.close)
        os.kill(first, signal.SIGKILL)
        stream.until(lambda m: "fault" in m.get("stream", {}))
        stream.until(lambda m: "begun" in m.get("stream", {}))
        again = watchers(self.page)
        self.assertEqual(len(again), 1)
        self.assertNotEqual(again[0], first)
        scctl("set", "aps/1", "group_info=again")
        stream.until(lambda m: m.get("changes"))


class Sources(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.folder)

    def program(self, name, text):
        path = self.folder / name
        path.write_text("#!/bin/sh\n" + text)
        path.chmod(0o755)

    def test_ssh_runs_scctl_there_with_quoted_words(self):
        fresh_areas()
        scctl("add", "lan_binds", "mac=00:11:22:33:44:55", "ip=192.168.1.20", "name=there")
        # A stand-in for the connection: it notes its words and runs the rest by a shell, as sshd does.
        self.program("ssh", 'printf "%%s|" "$@" >>%s/asked; echo >>%s/asked\n[ "$1" = router ] || exit 255\n'
                            'shift; exec sh -c "$*"\n' % (self.folder, self.folder))
        self.program("scctl", 'exec %s "$@"\n' % world.SCCTL)
        with Page("--ssh", "router", "--edit", environment={
                "PATH": "%s:%s" % (self.folder, os.environ["PATH"]), "SCCTL": "/none"}) as page:
            self.assertEqual(page.json("/table?name=lan_binds")["records"][0]["name"], "there")
            stream = Stream(page)
            known = {}
            stream.until(lambda m: known.update(m) or {"link", "areas"} <= known.keys())
            self.assertEqual((known["link"], len(known["areas"])), ({"live": True}, 17))
            hostile = "it's; reboot $(id)"
            status, text = page.post("/try", {"do": "set", "table": "lan_binds", "id": 1,
                                              "fields": {"name": hostile}})
            self.assertEqual(status, 200, text)
            stream.until(lambda m: m.get("try"))
            page.post("/confirm")
            stream.close()
        self.assertEqual(scctl("get", "lan_binds/1.name"), hostile + "\n")
        asked = (self.folder / "asked").read_text().splitlines()
        self.assertTrue(all(line.startswith("router|scctl|") for line in asked), asked)
        self.assertIn("router|scctl|watch|--json|", asked)

    def test_a_host_that_is_an_option_is_refused(self):
        self.program("ssh", "touch %s/called\n" % self.folder)
        for words in (["--ssh=-oProxyCommand=x"], ["--ssh", "-v"], ["--ssh", ""]):
            ended = subprocess.run([world.SCPAGE, *words], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                   env={**os.environ, "PATH": "%s:%s" % (self.folder, os.environ["PATH"])})
            self.assertEqual((ended.returncode, ended.stdout), (2, b""))
        self.assertFalse((self.folder / "called").exists())

    def test_a_lost_connection_is_told_within_3_s(self):
        fresh_areas()
        self.program("ssh", 'shift; [ ! -e %s/cut ] || exec sleep 60; exec sh -c "$*"\n' % self.folder)
        self.program("scctl", 'exec %s "$@"\n' % world.SCCTL)
        with Page("--ssh", "router", environment={
                "PATH": "%s:%s" % (self.folder, os.environ["PATH"])}) as page:
            stream = Stream(page)
            stream.until(lambda m: m.get("link", {}).get("live"))
            (self.folder / "cut").touch()
            cut = time.time()
            link = stream.until(lambda m: m.get("link"))
            self.assertFalse(link["live"])
            self.assertLess(time.time() - cut, 3)
            self.assertLess(abs(link["since"] - cut), 1.5)
            (self.folder / "cut").unlink()
            stream.close()

    def test_archives_are_read_and_not_written(self):
        fresh_areas()
        scctl("add", "lan_binds", "mac=00:11:22:33:44:55", "ip=192.168.1.20", "name=saved")
        scctl("save", "Lan", "Misc")
        scctl("set", "lan_binds/1", "name=live")
        for path in pathlib.Path("/var/dataconfig").glob("*.bin"):
            shutil.copy(path, self.folder)
        misc = self.folder / "config_misc.bin"
        misc.write_bytes(misc.read_bytes()[:100])
        before = {path.name: path.read_bytes() for path in self.folder.iterdir()}
        with Page("--archives", str(self.folder)) as page:
            text = page.request("GET", page.url[len(page.origin):])[2]
            self.assertEqual(re.findall(r"<h3>([\w.]+)</h3>", text), [*AREAS_OF_TABLES, "config_misc.bin"])
            self.assertIn("1 of 64 used, archive: config_lan.bin", text)
            self.assertEqual(page.json("/table?name=lan_binds")["records"][0]["name"], "saved")
            self.assertEqual(page.json("/record?table=lan_binds&id=1")["values"]["name"], "saved")
            self.assertIn("no archive", page.json("/table?name=clients")["fault"])
            # A newer archive is read.
            scctl("save", "Lan")
            shutil.copy("/var/dataconfig/config_lan.bin", self.folder)
            self.assertEqual(page.json("/table?name=lan_binds")["records"][0]["name"], "live")
            shutil.copy("/var/dataconfig/config_misc.bin", self.folder)
            self.assertIn("archive: config_misc.bin", page.request("GET", page.url[len(page.origin):])[2])
        self.assertEqual(sorted(before), sorted(path.name for path in self.folder.iterdir()))

    def test_names_of_archives_are_text(self):
        fresh_areas()
        scctl("save", "Lan")
        hostile = "<img src=x onerror=alert(1)>"
        folder = self.folder / (hostile + '"')
        folder.mkdir()
        shutil.copy("/var/dataconfig/config_lan.bin", folder / ("good%s.bin" % hostile))
        (folder / ("broken%s.bin" % hostile)).write_bytes(b"x")
        with Page("--archives", str(folder)) as page:
            text = page.request("GET", page.url[len(page.origin):])[2]
        self.assertNotIn("<img", text)
        for name in ("archive: good&lt;img", "<h3>broken&lt;img", "%s/&lt;img" % self.folder):
            self.assertIn(name, text)

    def test_no_folder_no_program_and_wrong_words_are_told(self):
        for words, status in ((["--archives", "/none"], 3), (["--demo", "--ssh", "x"], 2), (["--port", "x"], 2),
                              (["--port", "70000"], 2), (["--archives", "/", "--edit"], 2), (["x"], 2)):
            ended = subprocess.run([world.SCPAGE, *words], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
            self.assertEqual((ended.returncode, ended.stdout), (status, b""), words)
            self.assertTrue(ended.stderr)
        ended = subprocess.run([world.SCPAGE], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                               env={**os.environ, "SCCTL": "/none"})
        self.assertEqual((ended.returncode, ended.stdout, ended.stderr), (3, b"", b"scpage: SCCTL=/none is no program\n"))


class Manual(unittest.TestCase):
    def test_the_page_has_each_option_of_the_help(self):
        told = subprocess.run([world.SCPAGE, "--help"], stdout=subprocess.PIPE, text=True, check=True).stdout
        options = set(re.findall(r"^  (--\w+)", told, re.M))
        page = (world.ROOT / "docs/man/scpage.1").read_text().replace("\\-", "-")
        self.assertEqual(options, set(re.findall(r"^\.BI? (--\w+)", page, re.M)))
        self.assertEqual(len(options), 5)


class Life(unittest.TestCase):
    def test_it_ends_with_all_children_on_each_signal(self):
        fresh_areas()
        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            with Page() as page:
                wait_for(lambda: watchers(page), "a watcher")
                stream = Stream(page)
                stream.until(lambda m: m.get("areas"))
                children = children_of(page.child.pid)
                page.child.send_signal(number)
                began = time.monotonic()
                self.assertEqual(page.child.wait(5), 0)
                self.assertLess(time.monotonic() - began, 3)
                self.assertEqual([pid for pid in children if words_of(pid)], [])
                stream.close()

    def test_the_demo_changes_its_own_world_only(self):
        fresh_areas()
        before = scctl("export")
        with Page("--demo", "--edit") as page:
            self.assertRegex(page.url, r"^http://127\.0\.0\.1:\d+/\?token=[\w-]{20,}$")
            stream = Stream(page)
            stream.until(lambda m: m.get("changes"))
            self.assertGreater(len(page.json("/table?name=aps")["records"]), 30)
            self.assertEqual(page.post("/try", {"do": "set", "table": "aps", "id": 1,
                                                "fields": {"group_info": "tried"}})[0], 200)
            own = world.world_of(page.child.pid)
            guards = [pid for pid in map(int, filter(str.isdigit, os.listdir("/proc")))
                      if words_of(pid)[1:4] == ["try", "--timeout", "90"] and world.world_of(pid) == own]
            self.assertEqual(len(guards), 2)
            stream.close()
        self.assertEqual(scctl("export"), before)
        wait_for(lambda: not [pid for pid in guards if words_of(pid)], "the end of the guards")

    def test_a_port_that_is_taken_is_told(self):
        with Page() as page:
            ended = subprocess.run([world.SCPAGE, "--port", page.host.split(":")[1]], stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, env={**os.environ, "SCCTL": world.SCCTL})
        self.assertEqual((ended.returncode, ended.stdout), (3, b""))
        self.assertIn(b"Address already in use", ended.stderr)


AREAS_OF_TABLES = list(dict.fromkeys(row["area"] for row in json.loads(scctl("tables", "--json"))))

if __name__ == "__main__":
    unittest.main()
