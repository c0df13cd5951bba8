"""Headless Chromium, by its DevTools protocol over two pipes."""

import base64
import itertools
import json
import os
import shutil
import subprocess
import tempfile
import threading
import time


class Browser:
    """A Chromium with a profile of its own. Requests to anything but this machine are counted by `left`."""

    def __init__(self, *options):
        # In memory, where that is: a private world's /var. Chromium waits for its disk often.
        self._profile = tempfile.mkdtemp(prefix="scpage-chromium-",
                                         dir="/var" if os.path.exists("/var/private_world") else None)
        to_read, self._to = os.pipe()
        self._from, to_write = os.pipe()
        command = ["chromium", "--headless=new", "--no-sandbox", "--disable-gpu", "--disable-software-rasterizer", "--renderer-process-limit=3", "--disable-dev-shm-usage",
                   "--no-first-run", "--disable-background-networking", "--disable-component-update",
                   "--disable-sync", "--disable-extensions", "--disable-default-apps", "--mute-audio",
                   "--force-color-profile=srgb", "--hide-scrollbars", "--js-flags=--expose-gc",
                   "--user-data-dir=" + self._profile, "--remote-debugging-pipe", *options, "about:blank"]

        # Chromium reads from descriptor 3 and writes to 4.
        script = 'exec 3<&%d 4>&%d; exec "$@"' % (to_read, to_write)
        self._child = subprocess.Popen(["bash", "-c", script, "bash", *command],
                                       pass_fds=(to_read, to_write),
                                       env={**os.environ, "HOME": self._profile}, stdin=subprocess.DEVNULL,
                                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(to_read)
        os.close(to_write)
        self._numbers = itertools.count(1)
        self._condition = threading.Condition()
        self._answers = {}
        self.events = []
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        data = b""
        while piece := os.read(self._from, 1 << 16):
            data += piece
            *messages, data = data.split(b"\0")
            for message in map(json.loads, messages):
                with self._condition:
                    if "id" in message:
                        self._answers[message["id"]] = message
                    else:
                        self.events.append(message)
                    self._condition.notify_all()

    def call(self, method, session=None, **parameters):
        number = next(self._numbers)
        message = {"id": number, "method": method, "params": parameters}
        if session:
            message["sessionId"] = session
        os.write(self._to, json.dumps(message).encode() + b"\0")
        with self._condition:
            if not self._condition.wait_for(lambda: number in self._answers, 30):
                raise TimeoutError(method)
            answer = self._answers.pop(number)
        if "error" in answer:
            raise RuntimeError("%s: %s" % (method, answer["error"]))
        return answer["result"]

    def tab(self, url, width=1280, height=900, dark=False):
        return Tab(self, url, width, height, dark)

    def close(self):
        try:
            self.call("Browser.close")
            self._child.wait(10)
        except (TimeoutError, OSError, subprocess.TimeoutExpired):
            self._child.kill()
            self._child.wait()
        os.close(self._to)
        shutil.rmtree(self._profile, ignore_errors=True)


class Tab:
    def __init__(self, browser, url, width, height, dark):
        self._browser = browser
        self._target = browser.call("Target.createTarget", url="about:blank", newWindow=True)["targetId"]
        self._session = browser.call("Target.attachToTarget", targetId=self._target, flatten=True)["sessionId"]
        for domain in ("Page", "Runtime", "Network", "Log", "Performance", "HeapProfiler"):
            self.call(domain + ".enable")
        self.resize(width, height)
        self.call("Emulation.setEmulatedMedia", features=[
            {"name": "prefers-color-scheme", "value": "dark" if dark else "light"}])
        self.call("Page.navigate", url=url)

    def call(self, method, **parameters):
        return self._browser.call(method, self._session, **parameters)

    def resize(self, width, height):
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1,
                  mobile=False)

    def run(self, script):
        """The value of an expression; a promise is waited for."""
        ended = self.call("Runtime.evaluate", expression=script, awaitPromise=True, returnByValue=True)
        if "exceptionDetails" in ended:
            raise RuntimeError(json.dumps(ended["exceptionDetails"])[:2000])
        return ended["result"].get("value")

    def wait(self, script, seconds=10):
        """Waits until an expression is true, and returns its value."""
        limit = time.monotonic() + seconds
        while True:
            try:
                value = self.run(script)
            except RuntimeError:
                value = None  # the page is being loaded
            if value or value == {}:  # an element is {}
                return value
            if time.monotonic() > limit:
                raise TimeoutError("%s\nthe page: %s" % (script, self.run("document.body.innerText")[:1500]))
            time.sleep(0.05)

    def key(self, name, text=None):
        code = {"Tab": 9, "Enter": 13, "Escape": 27, " ": 32}.get(name, 0)
        text = text or {"Enter": "\r", " ": " "}.get(name)
        more = {"text": text} if text else {}
        for kind in ("keyDown", "keyUp"):
            self.call("Input.dispatchKeyEvent", type=kind, key=name, windowsVirtualKeyCode=code,
                      **(more if kind == "keyDown" else {}))

    def type(self, text):
        self.call("Input.insertText", text=text)

    def picture(self, path):
        data = self.call("Page.captureScreenshot", format="png")["data"]
        with open(path, "wb") as file:
            file.write(base64.b64decode(data))

    def heap(self):
        """Bytes of the script's heap, and nodes, after a collection."""
        self.call("HeapProfiler.collectGarbage")
        facts = {row["name"]: row["value"] for row in self.call("Performance.getMetrics")["metrics"]}
        return facts["JSHeapUsedSize"], facts["Nodes"]

    def own_events(self, method):
        return [event["params"] for event in self._browser.events
                if event.get("sessionId") == self._session and event["method"] == method]

    def requested(self):
        """The URLs that the page has asked for."""
        return [event["request"]["url"] for event in self.own_events("Network.requestWillBeSent")] + \
            [event["url"] for event in self.own_events("Network.webSocketCreated")]

    def complaints(self):
        """What the browser has said of the page: exceptions, refused requests and scripts."""
        return [json.dumps(event) for method in ("Runtime.exceptionThrown", "Log.entryAdded")
                for event in self.own_events(method)]

    def close(self):
        self._browser.call("Target.closeTarget", targetId=self._target)
