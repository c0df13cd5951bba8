"""Parts of scpage that need no router: the reader of dumps, the lines of a batch, the queue of a tab."""

import os
import pathlib
import shutil
import socket
import sys
import tempfile
import threading
import time
import types
import unittest
import unittest.mock

import world

sys.path.insert(0, str(world.ROOT / "scpage"))

import live
import server
import source

DUMP = """Lan: 50888 bytes
       0  2 zero bytes                                    header_reserved
things/1: byte 2 of the lock file
    1508  01 00 00 00                                     id
    1512  30 30 3a 31 31 3a 32 32 3a 33 33 3a 34 34 3a 35 name
    1528  35 00 00 00
    1532  1 zero byte                                     flag
    1533  7 zero bytes                                    spare_25
things/2: byte 3 of the lock file
    1540  02 00 00 00                                     id
    1544  28 zero bytes                                   name
things: 30 free records
   25444  500 zero bytes                                  spare_25444
"""


class Fields:
    @staticmethod
    def fields(table):
        if table != "things":
            raise source.Fault("no table")
        return [{"field": "name", "kind": "text"}, {"field": "flag", "kind": "signed"}]


class Dumps(unittest.TestCase):
    def test_a_record_has_its_bytes_and_parts(self):
        data, parts = source.record_bytes(DUMP, "things/1", 32)
        self.assertEqual(data, (b"\1\0\0\0" + b"00:11:22:33:44:55".ljust(20, b"\0") + bytes(8)).hex())
        self.assertEqual(parts, [{"name": "id", "at": 0, "size": 4}, {"name": "name", "at": 4, "size": 20},
                                 {"name": "flag", "at": 24, "size": 1}, {"name": "spare_25", "at": 25, "size": 7}])
        self.assertEqual(source.record_bytes(DUMP, "things/2", 32)[0], (b"\2" + bytes(31)).hex())

    def test_bytes_of_a_secret_are_hidden_and_a_record_has_its_own_fields(self):
        """A member of an overlay that does not hold, and bytes that are no number."""
        dump = "things/1: byte 2 of the lock file\n" \
               "       0  ** ** 41 00                                     psk level\n" \
               "       4  4 zero bytes                                    spare_4\n"
        data, parts = source.record_bytes(dump, "things/1", 8)
        self.assertEqual(data, "****410000000000")
        level = {"field": "level", "kind": "unsigned", "bytes": 1, "at": 2}
        fields = source.own_fields({"id": 1, "spare_4": "", "level": 65},
                                   [level, {"field": "absent", "kind": "mac", "bytes": 6, "at": 0}], parts)
        self.assertEqual(fields, [{"field": "spare_4", "kind": "bytes", "bytes": 4, "at": 4, "shown_only": True}, level])

    def test_what_is_not_there_is_a_fault(self):
        for name, size in (("things/3", 32), ("thing", 32), ("things/2", 33)):
            with self.assertRaises(source.Fault):
                source.record_bytes(DUMP, name, size)


class Tables(unittest.TestCase):
    def test_of_bytes_their_number_is_shown_and_of_a_secret_nothing(self):
        told = {"tables": [{"table": "things", "area": "Lan"}],
                "fields": [{"field": "token", "kind": "bytes"}, {"field": "name", "kind": "text"}],
                "list": [{"id": 1, "token": None, "name": "a"}, {"id": 2, "token": "0102", "name": "b"}, {"id": 3}]}
        runner = types.SimpleNamespace(json=lambda *words: told[words[0]])
        self.assertEqual(source.Source(runner, "").records("things"),
                         [{"id": 1, "token": None, "name": "a"}, {"id": 2, "token": "2 bytes", "name": "b"}, {"id": 3}])


class Programs(unittest.TestCase):
    def test_of_the_builds_that_run_here_the_newest_is_taken(self):
        folder = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, folder)
        (folder / "CMakeLists.txt").touch()
        for age, (name, text) in enumerate((("later", "#!/bin/sh\n"), ("mipsel", "\x7fELF"), ("former", "#!/bin/sh\n"),
                                            ("broken", "#!/bin/sh\nexit 1\n"))):
            path = folder / "build" / name / "scctl/scctl"
            path.parent.mkdir(parents=True)
            path.write_text(text)
            path.chmod(0o755)
            os.utime(path, (1000000 - age, 1000000 - age))
        with unittest.mock.patch.object(source, "ROOT", folder), \
                unittest.mock.patch.dict(os.environ, {"PATH": "/nowhere", "SCCTL": ""}):
            self.assertEqual(source.find_scctl(None), str(folder / "build/later/scctl/scctl"))
            os.utime(folder / "build/former/scctl/scctl", (2000000, 2000000))
            self.assertEqual(source.find_scctl(None), str(folder / "build/former/scctl/scctl"))


class Batches(unittest.TestCase):
    def line(self, **asked):
        (line,) = server.batch_of(Fields, {"table": "things", **asked})
        return line

    def test_values_are_quoted(self):
        self.assertEqual(self.line(do="set", id=3, fields={"name": "it's; $x"}), "set things/3 'name=it'\\''s; $x'\n")
        self.assertEqual(self.line(do="add", fields={"flag": "1"}), "add things 'flag=1'\n")
        self.assertEqual(self.line(do="del", id=4), "del things/4\n")

    def test_texts_that_are_no_line_are_hex(self):
        self.assertEqual(self.line(do="set", id=3, fields={"name": "a\n\udcff\u00e4"}), "set things/3 name:hex=610affc3a4\n")

    def test_what_is_no_edit_makes_no_line(self):
        for asked in ({"do": "set", "id": 3, "fields": {}}, {"do": "set", "id": 3, "fields": {"flag": "1\n"}},
                      {"do": "set", "id": 3, "fields": {"other": "1"}}, {"do": "set", "id": "3", "fields": {"flag": "1"}},
                      {"do": "save", "fields": {"flag": "1"}}, {"do": "set", "id": 3, "fields": {"name": "\ud800"}}):
            with self.assertRaises((source.Fault, KeyError)):
                self.line(**asked)


class Queues(unittest.TestCase):
    def test_a_tab_that_does_not_read_loses_changes_and_is_told_how_many(self):
        tab = live.Tab()
        for number in range(live.LONGEST_QUEUE * 2 + 5):
            tab.add_change(number)
            self.assertLessEqual(len(tab._changes), live.LONGEST_QUEUE)
        message = tab.take()
        self.assertEqual(message["dropped"] + len(message["changes"]), live.LONGEST_QUEUE * 2 + 5)
        self.assertEqual(message["changes"][-1], live.LONGEST_QUEUE * 2 + 4)
        tab.add_change("next")
        self.assertNotIn("dropped", tab.take())

    def test_a_tab_that_never_reads_is_given_up(self):
        ours, theirs = socket.socketpair()
        self.addCleanup(theirs.close)
        ours.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 4096)
        handler = server.Handler.__new__(server.Handler)
        handler.connection = ours
        tab = live.Tab()
        tab.add_change("x" * 1000000)
        with unittest.mock.patch.object(server, "LONGEST_WRITE", 1):
            sender = threading.Thread(target=handler._send_stream, args=(tab,), daemon=True)
            sender.start()
            sender.join(10)
        self.assertFalse(sender.is_alive())
        ours.close()
        theirs.settimeout(5)
        while theirs.recv(65536):
            pass

    def test_of_a_state_the_latest_is_sent(self):
        tab = live.Tab()
        tab.put("locks", [1])
        tab.put("locks", [2])
        self.assertEqual(tab.take()["locks"], [2])
        tab.close()
        self.assertIsNone(tab.take())


class Streams(unittest.TestCase):
    def test_the_state_after_a_loss_is_not_passed_on(self):
        hub = live.Hub(None)
        tab = hub.open_tab()
        for line in (b'{"what":"lost","count":7,"seen":"reader"}', b'{"what":"load","area":"Lan","seen":"anew"}',
                     b'{"what":"add","seen":"anew"}', b'{"what":"cha', b'{"what":"change","seen":"lock"}'):
            hub._take(line)
        self.assertEqual([change["what"] for change in tab.take()["changes"]], ["lost", "change"])

    def test_a_new_tab_gets_the_last_changes_and_the_latest_states(self):
        hub = live.Hub(None)
        for number in range(live.RECENT + 5):
            hub._take(b'{"seq":%d}' % number)
        hub._put("locks", [1])
        message = hub.open_tab().take()
        self.assertEqual([change["seq"] for change in message["changes"]], list(range(5, live.RECENT + 5)))
        self.assertTrue(all(change["old"] for change in message["changes"]))
        self.assertEqual(message["locks"], [1])


    def test_a_watcher_that_only_closes_its_output_is_ended(self):
        runner = source.Runner("/bin/sh")
        hub = live.Hub(types.SimpleNamespace(runner=runner))
        started = []

        def start(words):
            if started:
                hub._stop.set()
                raise source.Fault("not again")
            started.append(runner._start(["/bin/sh", "-c", "exec >&- 2>&-; exec sleep 60"], None))
            return started[0]

        with unittest.mock.patch.object(runner, "start", start):
            hub._watch()
        self.assertIsNotNone(started[0].poll())
        self.assertEqual(runner._children, set())


class Links(unittest.TestCase):
    """Since when the source is lost."""

    def test_it_is_lost_since_its_last_answer_and_told_once(self):
        hub = live.Hub(None)
        tab = hub.open_tab()
        hub._answered = time.monotonic() - 100
        hub._missed("no answer")
        link = tab.take()["link"]
        self.assertAlmostEqual(link["since"], time.time() - 100, delta=5)
        hub._missed("no answer")
        tab.put("locks", [])
        self.assertNotIn("link", tab.take())
        hub._found()
        self.assertEqual(tab.take()["link"], {"live": True})
        hub._missed("no answer")
        self.assertAlmostEqual(tab.take()["link"]["since"], time.time(), delta=5)

    def test_while_there_is_no_tab_no_answer_is_missed(self):
        hub = live.Hub(None)
        hub._answered = time.monotonic() - 100
        first = hub.open_tab()
        hub._missed("no answer")
        self.assertAlmostEqual(first.take()["link"]["since"], time.time(), delta=5)
        hub._found()
        hub._answered = time.monotonic() - 100
        second = hub.open_tab()
        hub._missed("no answer")
        second.take()
        self.assertAlmostEqual(first.take()["link"]["since"], time.time() - 100, delta=5)


class Calls(unittest.TestCase):
    def test_a_call_that_takes_too_long_is_ended(self):
        runner = source.Runner("/bin/sleep")
        children = []
        start = runner._start
        with unittest.mock.patch.object(source, "LONGEST_CALL", 0.2), \
                unittest.mock.patch.object(runner, "_start", lambda *words: children.append(start(*words)) or children[0]), \
                self.assertRaisesRegex(source.Fault, "no answer within"):
            runner.call("60")
        self.assertIsNotNone(children[0].poll())
        self.assertEqual(runner._children, set())


    def test_at_the_end_all_have_ended_soon_if_they_can(self):
        for line, least, most in (("echo; exec sleep 60", 0, 1.5), ("trap '' TERM; echo; sleep 60 & wait", 2, 10)):
            runner = source.Runner("/bin/sh")
            child = runner.start(["-c", line])
            child.stdout.readline()  # it has set its trap
            begun = time.monotonic()
            runner.stop()
            taken = time.monotonic() - begun
            self.assertIsNotNone(child.poll())
            self.assertTrue(least <= taken < most, taken)
            runner.end(child)
            with self.assertRaisesRegex(source.Fault, "scpage ends"):
                runner.start(["-c", "exit"])


class Differences(unittest.TestCase):
    def diff(self, *answer):
        runner = types.SimpleNamespace(call=lambda *words: answer,
                                       json=lambda *words: [{"table": "things", "area": "Lan"}])
        return source.Source(runner, "").diff("saved", "live")

    def test_of_many_the_first_are_shown_and_the_rest_is_counted(self):
        lines = ["things/%d: added" % n for n in range(source.LONGEST_DIFF + 2)] + ["Qos: missing"]
        self.assertEqual(self.diff(1, "\n".join(lines) + "\n", ""),
                         {"lines": lines[:-3], "more": 3, "areas": ["Lan", "Qos"]})
        self.assertEqual(self.diff(0, "", ""), {"lines": [], "more": 0, "areas": []})

    def test_what_fails_is_no_equality(self):
        for status in (1, 2):
            with self.assertRaisesRegex(source.Fault, "no such archive"):
                self.diff(status, "", "scctl: no such archive\n")


class Remarks(unittest.TestCase):
    def test_what_watch_says_first_is_a_remark_and_last_a_reason(self):
        hub, reason = live.Hub(None), []
        child = types.SimpleNamespace(stderr=[b"authors are not known\n", b"watching\n", b"scctl: no memory\n"])
        hub._read_remarks(child, 5, reason)
        self.assertEqual(hub.open_tab().take()["stream"], {"begun": 5, "remark": "authors are not known"})
        self.assertEqual(reason, ["scctl: no memory"])


class Ssh(unittest.TestCase):
    def test_words_are_quoted_for_the_shell_of_the_host(self):
        command = source.SshRunner("router").command([["get", "a b", "x;y"], ["locks"]])
        self.assertEqual(command, ["ssh", "router", "scctl", "get", "'a b'", "'x;y'", ";", "scctl", "locks"])


if __name__ == "__main__":
    unittest.main()
