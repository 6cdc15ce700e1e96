"""The two ends of a line with gwad and its service at one and gwrelay and its users at the other.

This process runs at the relay's end: it is the users, and it starts and ends the programs.
"""

import contextlib
import http.client
import json
import os
import pathlib
import signal
import socket
import subprocess
import sys
import threading
import time

from service import PIECE, pattern

RELAY, BOX, NEW_BOX = "10.99.0.2", "10.99.0.1", "10.99.0.3"
MANAGER, CONTROL, DATA, FRONT, WEB = 9999, 9998, 9997, 8080, 8000
DEVICE = "box"
CONNECTIONS = 5
LOOK_EVERY = 0.02
ASK_EVERY = 0.1
ANSWER_LIMIT = 3  # s; who has no answer by then asks again
UP_LIMIT = 60
HERE = pathlib.Path(__file__).parent


class Trouble(Exception):
    pass


def wait_until(holds, limit, what):
    """The seconds that it has taken."""
    start = time.monotonic()
    while not holds():
        if time.monotonic() - start > limit:
            raise Trouble(f"not within {limit} s: {what}")
        time.sleep(LOOK_EVERY)
    return time.monotonic() - start


def get(size=1000, timeout=ANSWER_LIMIT):
    """One user's request. True: answered, and every byte is right."""
    user = http.client.HTTPConnection("127.0.0.1", FRONT, timeout=timeout)
    with contextlib.closing(user):
        try:
            user.request("GET", f"/{DEVICE}/{WEB}/{size}", headers={"Connection": "close"})
            answer = user.getresponse()
            return answer.status == 200 and answer.read() == pattern(0, size)
        except (OSError, http.client.HTTPException):
            return False


def next_byte(since, limit):
    """Users who ask again and again, each on a connection of his own: when the first has his answer."""
    answered = []

    def user():
        if get():
            answered.append(time.monotonic())

    while not answered:
        if time.monotonic() - since > limit:
            raise Trouble(f"nobody had an answer within {limit} s")
        threading.Thread(target=user, daemon=True).start()
        time.sleep(ASK_EVERY)
    return min(answered) - since


class Transfer(threading.Thread):
    """A user in the midst of something long, who compares what he gets."""

    def __init__(self, size, upload=False):
        super().__init__(daemon=True)
        self.size, self.upload = size, upload
        self.done, self.right, self.ended = 0, True, None
        self.start()
        wait_until(lambda: self.done > size // 20 or self.ended, UP_LIMIT, "a transfer under way")

    def run(self):
        with socket.create_connection(("127.0.0.1", FRONT)) as user:
            try:
                (self.send_all if self.upload else self.receive_all)(user)
            except OSError:
                pass
        self.ended = time.monotonic()

    def receive_all(self, user):
        user.sendall(f"GET /{DEVICE}/{WEB}/{self.size} HTTP/1.0\r\n\r\n".encode())
        answer = http.client.HTTPResponse(user)
        answer.begin()
        while piece := answer.read1(PIECE):
            self.right = self.right and piece == pattern(self.done, len(piece))
            self.done += len(piece)

    def send_all(self, user):
        user.sendall(f"POST /{DEVICE}/{WEB}/ HTTP/1.0\r\nContent-Length: {self.size}\r\n\r\n".encode())
        while self.done < self.size:
            user.sendall(pattern(self.done, min(PIECE, self.size - self.done)))
            self.done = min(self.done + PIECE, self.size)
        answer = http.client.HTTPResponse(user)
        answer.begin()
        self.right = answer.read() == str(self.size).encode()

    def whole(self):
        return self.ended is not None and self.right and self.done == self.size


class Forwarder:
    """Stands between the line and the relay's data port, to send a plain end as no relay of ours does."""

    def __init__(self, port):
        self.port, self.pairs = port, []
        self.listener = socket.create_server((RELAY, port))
        threading.Thread(target=self.run, daemon=True).start()

    def run(self):
        while True:
            near = self.listener.accept()[0]
            far = socket.create_connection(("127.0.0.1", self.port))
            self.pairs.append((near, far))
            for source, to in ((near, far), (far, near)):
                threading.Thread(target=self.pump, args=(source, to), daemon=True).start()

    @staticmethod
    def pump(source, to):
        with contextlib.suppress(OSError):
            while piece := source.recv(PIECE):
                to.sendall(piece)

    def end(self, count):
        """A plain end towards the box, behind which nobody is; the relay's side is gone as well."""
        for near, far in self.pairs[:count]:
            near.shutdown(socket.SHUT_RDWR)  # also ends the pump's wait, which would keep it open
            near.close()
            far.close()
        del self.pairs[:count]


class Site:
    def __init__(self, programs, folder, behind=False):
        self.programs, self.folder = pathlib.Path(programs), pathlib.Path(folder)
        self.behind = behind
        self.box_name = os.environ["LINK_BOX"]
        self.relay_name = os.environ["LINK_RELAY"]
        self.relay = None
        self.home = self.folder / "home"
        for name in ("tmp", "etc"):
            (self.home / name).mkdir(parents=True)
        self.log = self.folder / "gwad.log"
        self.relay_log = self.folder / "gwrelay.log"
        self.addresses()
        self.at_box(sys.executable, "-B", HERE / "service.py", WEB)
        self.forwarders = [Forwarder(port) for port in (MANAGER, CONTROL, DATA)] if behind else []
        self.relay_start()
        self.box_start()
        self.wait_up()
        wait_until(get, UP_LIMIT, "the first answer")

    # --- programs ---

    def at_box(self, *command):
        return subprocess.Popen(["ip", "netns", "exec", self.box_name, *map(str, command)],
                                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def box_start(self):
        # No init script, whatever this machine has: a restart executes the program itself.
        self.at_box("sh", "-c", 'mount -t tmpfs none /etc/init.d; exec "$@"', "sh",
                    "env", "RES_OPTIONS=timeout:1 attempts:1", self.programs / "gwad",
                    "-r", RELAY, "-i", "line0", "-I", DEVICE, "-H", self.home, "-l", self.log, "-V", 3)

    def box_pid(self):
        return int((self.home / "tmp/gwad.pid").read_text())

    def relay_start(self):
        listen = "127.0.0.1" if self.behind else "0.0.0.0"
        with open(self.relay_log, "a") as log:
            self.relay = subprocess.Popen(
                [self.programs / "gwrelay", "--config", "/dev/null", "--drain", "0",
                 "--listen", listen, "--open", "--open-users", "--announce", RELAY],
                stdout=subprocess.DEVNULL, stderr=log)

    def relay_kill(self, number=signal.SIGKILL):
        self.relay.send_signal(number)
        self.relay.wait()

    # --- the line ---

    def addresses(self):
        """The box has a second address from the start, as a new one would restart gwad at once."""
        self.ip(self.box_name, f"address add {NEW_BOX}/32 dev line0")
        self.ip(self.relay_name, f"route add {NEW_BOX} dev line0 congctl cubic")
        pathlib.Path("/proc/sys/net/ipv4/conf/line0/rp_filter").write_text("1")

    @staticmethod
    def ip(name, words):
        subprocess.run(["ip", "-n", name, *words.split()], check=True)

    def forget(self):
        """What a router does that has forgotten its connections: they are silent, new ones are good."""
        self.ip(self.relay_name, f"route del {BOX} dev line0")
        self.ip(self.relay_name, f"route add blackhole {BOX}/32")
        self.ip(self.box_name, f"route change {RELAY} dev line0 src {NEW_BOX} congctl cubic")

    @staticmethod
    def order(text):
        pathlib.Path(os.environ["LINK_CONTROL"]).write_text(text + "\n")

    # --- what is seen ---

    @staticmethod
    def device():
        """What the relay knows of the box: (control, data connections)."""
        with contextlib.suppress(OSError, http.client.HTTPException, ValueError):
            user = http.client.HTTPConnection("127.0.0.1", FRONT, timeout=1)
            with contextlib.closing(user):
                user.request("GET", "/status.json")
                for device in json.loads(user.getresponse().read())["devices"]:
                    return device["control"], device["data_connections"]
        return False, 0

    def wait_up(self):
        return wait_until(lambda: self.device() == (True, CONNECTIONS), UP_LIMIT, "the box at the relay")

    def log_count(self, texts):
        log = self.log.read_text()
        return sum(log.count(text) for text in texts)

    def watch_log(self, texts, since):
        """A watch on the daemon's log: [seconds] as soon as there is one line more with such a text."""
        before, seen = self.log_count(texts), []

        def run():
            while not seen:
                if self.log_count(texts) > before:
                    seen.append(time.monotonic() - since)
                time.sleep(LOOK_EVERY)

        threading.Thread(target=run, daemon=True).start()
        return seen
