"""A headless Chromium, driven by its DevTools protocol over a pipe: what it sees is what a user sees.

    with Chromium() as browser:
        page = browser.page("http://127.0.0.1:8080/")
        page.wait("document.querySelectorAll('.row').length == 3")
"""

import base64
import json
import os
import queue
import shutil
import subprocess
import tempfile
import threading
import time

FLAGS = [
    "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
    "--disable-background-networking", "--disable-component-update", "--disable-sync",
    "--disable-dev-shm-usage", "--disable-default-apps", "--disable-extensions", "--hide-scrollbars",
    "--remote-debugging-pipe",
]
COMMAND_LIMIT = 60  # seconds


class Failed(Exception):
    """What the browser or its page refuses, or what has not come in time."""


class Chromium:
    """The program with a profile of its own, which goes with it."""

    def __init__(self, program="chromium"):
        self.folder = tempfile.mkdtemp(prefix="gwrelay-browser.")
        from_us, to_browser = os.pipe()
        from_browser, to_us = os.pipe()
        # It reads from descriptor 3 and writes to 4, whatever ours are.
        shell = f"exec {program} \"$@\" 3<&{from_us} 4>&{to_us}"
        self.process = subprocess.Popen(
            ["sh", "-c", shell, program, *FLAGS, "--user-data-dir=" + self.folder],
            pass_fds=(from_us, to_us), stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True)
        os.close(from_us)
        os.close(to_us)
        self.out = os.fdopen(to_browser, "wb", buffering=0)
        self.answers, self.events, self.count = {}, queue.Queue(), 0
        self.arrived = threading.Condition()
        self.reader = threading.Thread(target=self._read, args=(from_browser,), daemon=True)
        self.reader.start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        try:
            self.call("Browser.close")
            self.process.wait(10)
        except (Failed, OSError, subprocess.TimeoutExpired):
            self.process.kill()
            self.process.wait()
        self.out.close()
        self.reader.join(10)
        shutil.rmtree(self.folder, ignore_errors=True)

    def _read(self, pipe):
        rest = b""
        while chunk := os.read(pipe, 1 << 16):
            *whole, rest = (rest + chunk).split(b"\0")
            for message in map(json.loads, whole):
                with self.arrived:
                    if "id" in message:
                        self.answers[message["id"]] = message
                    elif message["method"] in ("Runtime.exceptionThrown", "Log.entryAdded"):
                        self.events.put(message)
                    self.arrived.notify_all()
        os.close(pipe)

    def call(self, method, session=None, **parameters):
        """What the browser answers to a command."""
        self.count += 1
        number = self.count
        message = {"id": number, "method": method, "params": parameters}
        if session:
            message["sessionId"] = session
        self.out.write(json.dumps(message).encode() + b"\0")
        with self.arrived:
            if not self.arrived.wait_for(lambda: number in self.answers, COMMAND_LIMIT):
                raise Failed(f"no answer to {method}")
            answer = self.answers.pop(number)
        if "error" in answer:
            raise Failed(f"{method}: {answer['error']['message']}")
        return answer["result"]

    def complaints(self):
        """What went wrong in pages since the last time, such as exceptions and refused resources."""
        texts = []
        while not self.events.empty():
            message = self.events.get()
            if message["method"] == "Runtime.exceptionThrown":
                texts.append(json.dumps(message["params"]["exceptionDetails"])[:500])
            elif message["params"]["entry"]["level"] == "error":
                texts.append(message["params"]["entry"]["text"])
        return texts

    def page(self, address, width=1280, height=800, dark=False, phone=False, scale=1):
        """A new tab that looks like this, gone to the address."""
        target = self.call("Target.createTarget", url="about:blank")["targetId"]
        session = self.call("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]
        tab = Page(self, session, target)
        for domain in ("Page", "Runtime", "Log"):
            tab.call(domain + ".enable")
        tab.call("Emulation.setDeviceMetricsOverride", width=width, height=height,
                 deviceScaleFactor=scale, mobile=phone)
        tab.call("Emulation.setEmulatedMedia", features=[
            {"name": "prefers-color-scheme", "value": "dark" if dark else "light"}])
        tab.go(address)
        return tab


class Page:
    """A tab."""

    def __init__(self, browser, session, target):
        self.browser, self.session, self.target = browser, session, target

    def call(self, method, **parameters):
        return self.browser.call(method, self.session, **parameters)

    def go(self, address):
        self.call("Page.navigate", url=address)
        self.wait("location.href != 'about:blank' && document.readyState == 'complete'")

    def run(self, script):
        """The value of an expression in the page; a promise's is waited for."""
        answer = self.call("Runtime.evaluate", expression=script, returnByValue=True, awaitPromise=True)
        if "exceptionDetails" in answer:
            raise Failed(f"{script}: {answer['exceptionDetails']}")
        return answer["result"].get("value")

    def wait(self, script, limit=60):
        """Until the expression is true."""
        end = time.monotonic() + limit
        while not self.run(f"Boolean({script})"):
            if time.monotonic() > end:
                raise Failed(f"not within {limit} s: {script}")
            time.sleep(0.05)

    def click(self, selector):
        """The mouse on the middle of what the selector finds."""
        place = self.run("(() => { const it = document.querySelector(" + json.dumps(selector) + ");"
                         " it.scrollIntoView({block: 'center'}); const box = it.getBoundingClientRect();"
                         " return [box.x + box.width / 2, box.y + box.height / 2]; })()")
        for kind in ("mousePressed", "mouseReleased"):
            self.call("Input.dispatchMouseEvent", type=kind, x=place[0], y=place[1], button="left",
                      clickCount=1)

    def type(self, text):
        self.call("Input.insertText", text=text)

    def press(self, key, code):
        for kind in ("keyDown", "keyUp"):
            self.call("Input.dispatchKeyEvent", type=kind, key=key, code=key,
                      windowsVirtualKeyCode=code, text=key if len(key) == 1 and kind == "keyDown" else "")

    def picture(self, file):
        """What is to be seen, as PNG."""
        data = self.call("Page.captureScreenshot", format="png")["data"]
        with open(file, "wb") as out:
            out.write(base64.b64decode(data))

    def close(self):
        self.browser.call("Target.closeTarget", targetId=self.target)
