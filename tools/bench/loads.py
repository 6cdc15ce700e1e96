"""The loads: each runs once, one way, and returns its figures by the name of their row."""

import contextlib
import re
import socket
import subprocess
import time
import urllib.parse

from programs import Failure, cpu_s, wakeups

GB = 1e9
TRANSFER_LIMIT_S = 120
UNREAD = 8
WRK_FIGURES = {
    "requests": r"(\d+) requests in",
    "per_s": r"Requests/sec: +([\d.]+)",
    "p50": r" 50% +([\d.]+)(us|ms|s)\b",
    "p99": r" 99% +([\d.]+)(us|ms|s)\b",
}
MS = {"us": 0.001, "ms": 1, "s": 1000}


class Cost:
    """What the load costs the box and the relay, between its beginning and its end."""

    def __init__(self, peer):
        self.peer = peer

    def __enter__(self):
        self.before = cpu_s(self.peer.box), cpu_s(self.peer.relay)
        return self

    def __exit__(self, *_):
        time.sleep(0.02)  # the last bytes' buffers are freed after the user has them
        self.box_s = cpu_s(self.peer.box) - self.before[0]
        self.relay_s = cpu_s(self.peer.relay) - self.before[1]

    def per(self, units, **rows):
        """box= and relay=: the names of their rows. None straight to the services."""
        seconds = {"box": self.box_s, "relay": self.relay_s}
        return {row: seconds[side] / units for side, row in rows.items() if self.peer.box}


def curl(*options):
    """Seconds and bytes."""
    done = subprocess.run(
        ["curl", "-sS", "-f", "--max-time", str(TRANSFER_LIMIT_S), "-o", "/dev/null", *options],
        capture_output=True, text=True, stdin=subprocess.DEVNULL)
    if done.returncode != 0:
        raise Failure(f"curl {options[-1]}: {done.stderr}")
    return [float(figure) for figure in done.stdout.split()]


def transfer(direction, peer, *options):
    with Cost(peer) as cost:
        seconds, size = curl(*options)
    if peer.log:
        open(peer.log, "w").close()  # the next one starts with an empty log as well
    return {direction: size / seconds / 1e6,
            **cost.per(size / GB, box=f"{direction} box", relay=f"{direction} relay")}


def download(peer, _):
    return transfer("download", peer, "-w", "%{time_total} %{size_download}", peer.file(peer.download))


def upload(peer, services):
    return transfer("upload", peer, "-w", "%{time_total} %{size_upload}", "-X", "POST",
                    "-H", "Expect:", "-T", f"{services.files}/{peer.upload}", f"{peer.sink}/")


def wrk(address, users, seconds, *options):
    done = subprocess.run(["wrk", "-t", "1", "-c", str(users), "-d", f"{seconds}s", "--latency",
                           "--timeout", "5s", *options, address],
                          capture_output=True, text=True, stdin=subprocess.DEVNULL)
    figures = {}
    for name, pattern in WRK_FIGURES.items():
        found = re.search(pattern, done.stdout)
        if not found:
            raise Failure(f"wrk {address}: {done.stdout}{done.stderr}")
        figures[name] = float(found[1]) * (MS[found[2]] if found.lastindex == 2 else 1)
    errors = re.findall(r"(?:connect|read|write|timeout|responses:) (\d+)", done.stdout)
    figures["errors"] = sum(map(int, errors))
    return figures


def one_user(peer, seconds):
    figures = wrk(peer.file("1k"), 1, seconds)
    return {"1k p50": figures["p50"], "errors": figures["errors"]}


def many_users(peer, seconds):
    with Cost(peer) as cost:
        figures = wrk(peer.file("1k"), 32, seconds)
    return {"1k": figures["per_s"], "errors": figures["errors"],
            **cost.per(max(figures["requests"], 1) / 1e6, box="1k box")}


def new_connections(peer, seconds):
    figures = wrk(peer.file("1k"), 8, seconds, "-H", "Connection: close")
    return {"new": figures["per_s"], "errors": figures["errors"]}


def pages(peer, seconds):
    figures = wrk(peer.file("100k"), 8, seconds)
    return {"100k": figures["per_s"], "100k p50": figures["p50"], "errors": figures["errors"]}


def beside_download(peer, seconds):
    one_after_another = ["-o", "/dev/null", peer.file("256m")] * 1000
    with ended(subprocess.Popen(["curl", "-s", *one_after_another], stdin=subprocess.DEVNULL,
                                stderr=subprocess.DEVNULL)):
        time.sleep(0.2)
        figures = wrk(peer.file("1k"), 1, seconds)
    return {"beside p50": figures["p50"], "beside p99": figures["p99"], "errors": figures["errors"]}


@contextlib.contextmanager
def ended(process):
    try:
        yield
    finally:
        process.kill()
        process.wait()
        time.sleep(0.2)  # what was on its way to it


def beside_unread(peer, seconds):
    """One user, alone, and beside others who have asked for much and read nothing of it."""
    alone = wrk(peer.file("1k"), 1, seconds)
    to = urllib.parse.urlsplit(peer.file("256m"))
    request = f"GET {to.path} HTTP/1.1\r\nHost: {to.netloc}\r\n\r\n".encode()
    with contextlib.ExitStack() as idle:
        for _ in range(UNREAD):
            user = idle.enter_context(socket.create_connection((to.hostname, to.port)))
            user.sendall(request)
        time.sleep(1)  # everything on the way is full by now
        figures = wrk(peer.file("1k"), 1, seconds)
    time.sleep(0.5)
    return {"beside nothing": alone["per_s"], "unread": figures["per_s"],
            "errors": alone["errors"] + figures["errors"]}


def one_connection(relay, web_port, streams, size):
    """As many downloads at once on one data connection, until all together have got so many bytes:
    how fast, and how much less than its share the one with the least has got."""
    ids = [relay.open() for _ in range(streams)]
    start = time.monotonic()
    for stream in ids:
        relay.request(stream, web_port, "GET", "/256m")
    got = relay.receive(size)
    seconds = time.monotonic() - start
    for stream in ids:
        relay.close(stream)
    relay.echo()
    least = min(got.get(stream, 0) for stream in ids) / (sum(got.values()) / streams)
    return {f"streams {streams}": size / seconds / 1e6, f"least of {streams}": least}


def idle(peers, seconds):
    """Wake-ups a second while nothing happens, all peers in the same time."""
    time.sleep(2)
    peers = [peer for peer in peers if peer.box]
    before = {peer.name: sum(map(wakeups, peer.box)) for peer in peers}
    time.sleep(seconds)
    return {peer.name: (sum(map(wakeups, peer.box)) - before[peer.name]) / seconds for peer in peers}
