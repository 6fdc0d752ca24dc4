"""A Chromium without a window and without a network, driven through the pipe of its developer tools."""
import base64
import itertools
import json
import os
import pathlib
import select
import shutil
import subprocess
import tempfile
import time

PROGRAM = shutil.which("chromium")


def without_network():
    """The words before a command that cut its network; none where the system doesn't allow that."""
    for words in (["unshare", "-n"], ["unshare", "-r", "-n"]):
        if shutil.which("unshare") and subprocess.run([*words, "true"], stderr=subprocess.DEVNULL).returncode == 0:
            return words
    return []


class Browser:
    """Opens one page at a time. Keeps what its console printed and which addresses it asked for."""

    def __init__(self, limit):
        self.limit = limit
        self.messages, self.requests, self._received, self._ids = [], [], b"", itertools.count(1)
        self.folder = tempfile.TemporaryDirectory(prefix="orvex-browser-", ignore_cleanup_errors=True)
        to_read, self.output = os.pipe()
        self.input, to_write = os.pipe()
        # The browser reads from its descriptor 3 and writes to 4.
        exchange = f"exec 8<&{to_read} 9>&{to_write}; exec 3<&8 4>&9 8<&- 9>&-; exec \"$@\""
        self.process = subprocess.Popen(
            ["bash", "-c", exchange, "bash", *without_network(), PROGRAM, "--headless=new", "--no-sandbox", "--disable-gpu",
             "--disable-dev-shm-usage", "--remote-debugging-pipe", f"--user-data-dir={self.folder.name}", "about:blank"],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, pass_fds=(to_read, to_write),
            env={**os.environ, "HOME": self.folder.name})
        os.close(to_read)
        os.close(to_write)
        targets = self._call("Target.getTargets")["targetInfos"]
        target = next(each["targetId"] for each in targets if each["type"] == "page")
        self.session = self._call("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]
        for domain in ("Page", "Runtime", "Log", "Network"):
            self.call(f"{domain}.enable")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        try:
            self._call("Browser.close")
        except (OSError, AssertionError):
            pass
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        os.close(self.output)
        os.close(self.input)
        self.folder.cleanup()

    def _read(self, end):
        while b"\0" not in self._received:
            if not select.select([self.input], [], [], max(0, end - time.monotonic()))[0]:
                raise AssertionError("the browser doesn't answer")
            data = os.read(self.input, 1 << 20)
            if not data:
                raise AssertionError("the browser has ended")
            self._received += data
        line, _, self._received = self._received.partition(b"\0")
        message = json.loads(line)
        method, params = message.get("method", ""), message.get("params", {})
        if method == "Log.entryAdded":
            self.messages.append(params["entry"]["text"])
        elif method in ("Runtime.consoleAPICalled", "Runtime.exceptionThrown"):
            self.messages.append(json.dumps(params))
        elif method == "Network.requestWillBeSent":
            self.requests.append(params["request"]["url"])
        return message

    def _call(self, method, session=None, **params):
        number, end = next(self._ids), time.monotonic() + self.limit
        message = {"id": number, "method": method, "params": params, **({"sessionId": session} if session else {})}
        os.write(self.output, json.dumps(message).encode() + b"\0")
        while (answer := self._read(end)).get("id") != number:
            pass
        assert "error" not in answer, answer
        return answer["result"]

    def call(self, method, **params):
        return self._call(method, self.session, **params)

    def open(self, path, width=1400, dark=False):
        """Opens a page and waits until it is drawn. Returns the seconds that it took."""
        self.messages.clear()
        self.requests.clear()
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=900, deviceScaleFactor=1, mobile=width < 600)
        self.call("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": "dark" if dark else "light"}])
        begin = time.monotonic()
        self.call("Page.navigate", url=pathlib.Path(path).resolve().as_uri())
        self.run("new Promise(done => { const drawn = () => requestAnimationFrame(() => setTimeout(done)); "
                 "document.readyState === 'complete' ? drawn() : addEventListener('load', drawn); })")
        return time.monotonic() - begin

    def run(self, script):
        """The value of an expression in the page."""
        answer = self.call("Runtime.evaluate", expression=script, awaitPromise=True, returnByValue=True)
        assert "exceptionDetails" not in answer, answer
        return answer["result"].get("value")

    def picture(self, path):
        """Saves the whole page as a PNG."""
        size = self.call("Page.getLayoutMetrics")["cssContentSize"]
        data = self.call("Page.captureScreenshot", captureBeyondViewport=True,
                         clip={"x": 0, "y": 0, "width": size["width"], "height": min(size["height"], 12000), "scale": 1})
        pathlib.Path(path).write_bytes(base64.b64decode(data["data"]))

    def print(self):
        """The page as PDF."""
        return base64.b64decode(self.call("Page.printToPDF", preferCSSPageSize=True)["data"])
