"""A headless Chromium that a test drives through its debugging pipe. No port is opened."""
import base64
import fcntl
import json
import os
import select
import shutil
import subprocess
import time

PROGRAM = shutil.which("chromium") or shutil.which("chromium-browser")
# No answer takes that long, on a busy machine either.
PATIENCE = 120
# Records what is written on a canvas, and where.
RECORD_TEXTS = """
    window.texts = [];
    const fillText = CanvasRenderingContext2D.prototype.fillText;
    CanvasRenderingContext2D.prototype.fillText = function (text, x, y, ...rest) {
        window.texts.push({ text: String(text), x, y });
        return fillText.call(this, text, x, y, ...rest);
    };
"""


class Chromium:
    """One browser. Its pages are opened one after the other."""

    def __init__(self, profile):
        # The browser's ends are its descriptors 3 and 4.
        ends = [fcntl.fcntl(end, fcntl.F_DUPFD_CLOEXEC, 10) for pair in (os.pipe(), os.pipe()) for end in pair]
        reads_command, self._commands, self._answers, writes_answer = ends

        def connect():
            os.dup2(reads_command, 3)
            os.dup2(writes_answer, 4)

        self._process = subprocess.Popen(
            [PROGRAM, "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
             "--hide-scrollbars", "--disable-background-networking", "--disable-component-update", "--disable-sync",
             "--disable-dev-shm-usage", "--remote-debugging-pipe", f"--user-data-dir={profile}"],
            preexec_fn=connect, pass_fds=(3, 4), stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL)
        os.close(reads_command)
        os.close(writes_answer)
        self._received, self._events, self._number, self._session, self._target = b"", [], 0, None, None

    def __enter__(self):
        return self

    def __exit__(self, *_):
        try:
            self._session = None
            self.call("Browser.close")
            self._process.wait(PATIENCE)
        finally:
            self._process.kill()
            self._process.wait()
            os.close(self._commands)
            os.close(self._answers)

    def _receive(self):
        deadline = time.monotonic() + PATIENCE
        while b"\0" not in self._received:
            ready, _, _ = select.select([self._answers], [], [], max(deadline - time.monotonic(), 0))
            assert ready, "the browser does not answer"
            piece = os.read(self._answers, 1 << 20)
            assert piece, "the browser has ended"
            self._received += piece
        message, self._received = self._received.split(b"\0", 1)
        return json.loads(message)

    def call(self, method, **parameters):
        self._number += 1
        command = {"id": self._number, "method": method, "params": parameters}
        if self._session:
            command["sessionId"] = self._session
        data = json.dumps(command).encode() + b"\0"
        while data:
            data = data[os.write(self._commands, data):]
        while True:
            message = self._receive()
            if message.get("id") == self._number:
                assert "error" not in message, (method, message["error"])
                return message["result"]
            self._events.append(message)

    def open(self, page, width=1280, height=900, dark=False):
        """Opens a file in a new page and waits until it is loaded."""
        if self._target:
            self._session = None
            self.call("Target.closeTarget", targetId=self._target)
        self._target = self.call("Target.createTarget", url="about:blank")["targetId"]
        self._session = self.call("Target.attachToTarget", targetId=self._target, flatten=True)["sessionId"]
        self._events.clear()
        for domain in ("Page", "Runtime", "Log", "Network"):
            self.call(f"{domain}.enable")
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1, mobile=False)
        self.call("Emulation.setEmulatedMedia",
                  features=[{"name": "prefers-color-scheme", "value": "dark" if dark else "light"}])
        self.call("Page.addScriptToEvaluateOnNewDocument", source=RECORD_TEXTS)
        self.call("Page.navigate", url=page.as_uri())
        while not any(event["method"] == "Page.loadEventFired" for event in self._events):
            self._events.append(self._receive())

    def evaluate(self, expression):
        done = self.call("Runtime.evaluate", expression=expression, returnByValue=True, awaitPromise=True)
        assert "exceptionDetails" not in done, (expression, done["exceptionDetails"])
        return done["result"].get("value")

    def dom(self):
        return self.evaluate("document.documentElement.outerHTML")

    def settle(self):
        """Waits until the page has drawn what it was asked for."""
        self.evaluate("new Promise((done) => requestAnimationFrame(() => requestAnimationFrame(() => done(0))))")

    def mouse(self, kind, x, y, button="left"):
        self.call("Input.dispatchMouseEvent", type=kind, x=x, y=y, button="none" if kind == "mouseMoved" else button,
                  clickCount=0 if kind == "mouseMoved" else 1)

    def messages(self):
        """What the page wrote to the console, exceptions, and what the browser said about it."""
        self.evaluate("0")
        return [event["params"] for event in self._events
                if event["method"] in ("Runtime.consoleAPICalled", "Runtime.exceptionThrown", "Log.entryAdded")]

    def requests(self):
        return [event["params"]["request"]["url"] for event in self._events
                if event["method"] == "Network.requestWillBeSent"]

    def screenshot(self, picture):
        """The whole page as PNG."""
        done = self.call("Page.captureScreenshot", format="png", captureBeyondViewport=True)
        picture.write_bytes(base64.b64decode(done["data"]))
