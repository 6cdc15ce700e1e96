"""A real browser at a real box: chromium, gwrelay, gwad, and a site behind it.

    browser.py FOLDER     the folder of gwad and gwrelay

Ends with status 0 when the page behind the box has seen what it would see at home.
"""
import json
import os
import re
import signal
import subprocess
import sys
import tempfile
import time
import urllib.request

HERE = os.path.dirname(os.path.abspath(__file__))
DEVICE, LABEL = "Box.1", "box-1--xqxa"  # no name by itself: the harder case
LIMIT = 300  # s, for anything that is asked again and again
WHOLE_LIMIT = 600  # s


def wait_for(what, condition):
    end = time.monotonic() + LIMIT
    while not (result := condition()):
        if time.monotonic() > end:
            raise TimeoutError(what)
        time.sleep(0.1)
    return result


class Browser:
    """Speaks the DevTools protocol over two pipes, which need no library."""

    def __init__(self, folder):
        to_read, self.to = os.pipe()
        self.come, to_write = os.pipe()

        def take_pipes():  # the program wants them as 3 and 4
            ours = os.dup2(to_read, 100), os.dup2(to_write, 101)
            os.dup2(ours[0], 3), os.dup2(ours[1], 4)

        self.process = subprocess.Popen(
            ["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
             "--no-proxy-server", "--no-first-run", "--disable-background-networking",
             "--remote-debugging-pipe", f"--user-data-dir={folder}/profile", "about:blank"],
            preexec_fn=take_pipes, close_fds=False, stdout=subprocess.DEVNULL,
            stderr=open(f"{folder}/browser.log", "w"), env={**os.environ, "HOME": folder})
        os.close(to_read), os.close(to_write)
        self.number, self.rest, self.session = 0, b"", {}
        target = self.ask("Target.createTarget", url="about:blank")["targetId"]
        attached = self.ask("Target.attachToTarget", targetId=target, flatten=True)
        self.session = {"sessionId": attached["sessionId"]}

    def ask(self, method, **params):
        self.number += 1
        message = {"id": self.number, "method": method, "params": params, **self.session}
        os.write(self.to, json.dumps(message).encode() + b"\0")
        while True:
            whole, mark, self.rest = self.rest.partition(b"\0")
            if not mark:
                more = os.read(self.come, 1 << 16)
                if not more:
                    raise ConnectionError("the browser has ended")
                self.rest = whole + more
                continue
            answer = json.loads(whole)
            if answer.get("id") == self.number:
                return answer["result"]

    def value(self, expression):
        return self.ask("Runtime.evaluate", expression=expression)["result"].get("value")

    def opens(self, url):
        self.ask("Page.navigate", url=url)


def check(what, seen, expected):
    if seen != expected:
        raise AssertionError(f"{what}: {seen!r}, not {expected!r}")
    print(f"ok: {what}")


def by_name(browser, host):
    browser.opens(f"http://{host}/")
    title = wait_for("the page's results",
                     lambda: (browser.value("document.title") or "").startswith("{")
                     and browser.value("document.title"))
    expected = {
        "place": f"{host}/home",
        "style": "rgb(1, 2, 3)",
        "cookie": "seen=yes",
        "who": ["seen=yes", host, "127.0.0.1"],
        "uploads": [f"{method} /files/a?b=c&d equal" for method in ("POST", "PUT", "DELETE")],
        "download": [64 << 20, True],
        "events": "0,1,2",
        "webSocket": ["hello", 1000, True],
        "others": "refused",
    }
    seen = json.loads(title)
    for what, value in expected.items():
        check(what, seen.get(what), value)


def by_path(browser, front, port):
    browser.opens(f"http://127.0.0.1:{front}/{DEVICE}/{port}/plain")
    wait_for("the page by a path", lambda: browser.value("document.title") == "plain")
    check("path", browser.value("location.pathname"), f"/{DEVICE}/{port}/plain_home")
    check("cookie of the path", browser.value("document.cookie"), "seen=yes")
    browser.opens(f"http://127.0.0.1:{front}/status.json")
    wait_for("the relay's own", lambda: browser.value("location.pathname") == "/status.json")
    check("no cookie elsewhere", browser.value("document.cookie"), "")


def run(programs, folder, started):
    def start(name, *command, **more):
        log = open(f"{folder}/{name}.log", "w")
        started.append(subprocess.Popen(command, stderr=log, text=True, **more))
        return started[-1]

    site = start("site", sys.executable, f"{HERE}/site.py", stdout=subprocess.PIPE)
    port = int(site.stdout.readline())
    ports = [f"--{name}-port=0" for name in ("manager", "control", "data", "front")]
    relay = start("gwrelay", f"{programs}/gwrelay", *ports, stdout=subprocess.PIPE)
    manager, front = re.search(r"manager=(\d+).*front=(\d+)", relay.stdout.readline()).groups()
    os.makedirs(f"{folder}/home/tmp")
    start("gwad", f"{programs}/gwad", "-r", "localhost", "-p", manager, "-i", "lo", "-I", DEVICE,
          "-H", f"{folder}/home", "-V", "3", stdout=subprocess.DEVNULL)
    status = f"http://127.0.0.1:{front}/status.json"
    wait_for("the box", lambda: b'"data_connections":5' in urllib.request.urlopen(status).read())
    browser = Browser(folder)
    started.append(browser.process)
    by_name(browser, f"{LABEL}--{port}.localhost:{front}")
    by_path(browser, front, port)
    with open(f"{folder}/gwrelay.log", encoding="utf-8") as log:
        check("the WebSocket's end", "both sides have closed the WebSocket" in log.read(), True)


def too_late(*_):
    raise TimeoutError(f"not done within {WHOLE_LIMIT} s")


def main():
    started = []
    signal.signal(signal.SIGALRM, too_late)
    signal.alarm(WHOLE_LIMIT)
    with tempfile.TemporaryDirectory(prefix="gwrelay-browser.", ignore_cleanup_errors=True) as folder:
        try:
            run(os.path.abspath(sys.argv[1]), folder, started)
        except Exception:
            for name in ("gwad", "gwrelay", "browser"):
                if os.path.exists(f"{folder}/{name}.log"):
                    with open(f"{folder}/{name}.log", encoding="utf-8", errors="replace") as log:
                        print(f"--- the end of {name}.log ---", *log.readlines()[-30:], sep="\n")
            raise
        finally:
            for process in reversed(started):
                process.terminate()
                try:
                    process.wait(10)
                except subprocess.TimeoutExpired:
                    process.kill()


if __name__ == "__main__":
    main()
