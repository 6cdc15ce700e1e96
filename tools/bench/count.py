"""Counts the daemon's instructions for a few loads: see scripts/bench --count, which calls this.

Time differs from machine to machine and from run to run, instructions hardly: what is left is luck with
the heap and with rounds that find more or less to do."""

import argparse
import re
import signal
import socket
import socketserver
import sys
import threading
import time

import table
from meters import Callgrind, Qemu
from peers import gwad_start
from programs import Failure
from relay import Relay

RUNS = 3
RUN_LIMIT_S = 600
GROWTH_MAX = 1.1
FUNCTIONS = 10
DEVICE = "count"
TIMES = 50
# What is sent at once arrives at once on loopback as long as it fits into one segment, which has up to
# 64 KiB. So how much of a page the daemon finds does not depend on time.
SMALL, LARGE, BULK = 1200, 57_200, 4_000_000
# Between the steps of a request, so that each finds the daemon at rest.
REST_S = 0.003
HEAD = ("# Instructions that gwad executes, the median of %d runs. Written by scripts/bench --count --keep;\n"
        "# scripts/bench --count fails when one of them has grown by more than a tenth.\n" % RUNS)


class Service(socketserver.ThreadingTCPServer):
    """GET /N is answered with N bytes in one piece, a POST after its last byte with a small page. It
    tells when a connection has ended."""

    daemon_threads = True

    def __init__(self):
        super().__init__(("127.0.0.1", 0), Connection)
        self.port = self.server_address[1]
        self.ended = threading.Semaphore(0)
        threading.Thread(target=self.serve_forever, daemon=True).start()


class Connection(socketserver.BaseRequestHandler):
    def handle(self):
        self.request.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        while request := self.request.recv(1 << 20):
            head, _, body = request.partition(b"\r\n\r\n")
            left = int((re.search(rb"Content-Length: (\d+)", head) or [0, 0])[1]) - len(body)
            while left > 0:
                left -= len(self.request.recv(left))
            time.sleep(REST_S)
            self.request.sendall(bytes(int(re.match(rb"GET /(\d+)|", head)[1] or SMALL)))
        self.server.ended.release()


class Steps:
    """What is measured, one after the other, each TIMES times, on the relay's side of the wire."""

    def __init__(self, relay, service):
        self.relay, self.service = relay, service
        self.kept = relay.open()  # one stream for everything but new streams

    def get(self, stream, size):
        self.relay.request(stream, self.service.port, "GET", f"/{size}")
        self.relay.receive(size)
        time.sleep(REST_S)

    def small_page(self):
        self.get(self.kept, SMALL)

    def large_page(self):
        self.get(self.kept, LARGE)

    def new_stream(self):
        self.get(stream := self.relay.open(), SMALL)
        self.relay.close(stream)
        self.service.ended.acquire()
        time.sleep(REST_S)

    def upload(self):
        self.relay.request(self.kept, self.service.port, "POST", "/",
                           headers=f"Content-Length: {BULK}\r\n")
        self.relay.send(self.kept, BULK)
        self.relay.receive(SMALL)

    def download(self):
        self.get(self.kept, BULK)


STEPS = [(Steps.small_page, TIMES), (Steps.upload, 1), (Steps.large_page, TIMES),
         (Steps.new_stream, TIMES), (Steps.download, 1)]
LOADS = {
    "request": "a request for 1 KB on an open stream",
    "stream": "a request for 1 KB on a new stream, which is closed",
    "page": "a page of 57 KB, each KB more than that one",
    "download": "a long download, each KB",
    "upload": "a long upload, each KB",
}
# How much of a long download waits whenever the daemon looks is a matter of luck: it is shown, but
# not compared.
NOT_COMPARED = {"download"}


def per_kb(large, small, size):
    """What the size costs: a large one has all but its size in common with a small one."""
    return {function: (count - small.get(function, 0)) * 1000 / size
            for function, count in large.items()}


def middle(runs):
    return sorted(runs, key=lambda functions: sum(functions.values()))[len(runs) // 2]


def too_late(*_):
    raise Failure(f"a run is not done within {RUN_LIMIT_S} s")


def run(work, meter, number):
    """Instructions by function for each load, in one life of the daemon."""
    signal.alarm(RUN_LIMIT_S)
    relay, service = Relay(), Service()
    device = f"{DEVICE}-{meter.name}-{number}"
    daemon = gwad_start(work, meter.command, device, relay.manager_port, 3, meter.environment)
    relay.log_in(device)
    meter.started(daemon)
    steps = Steps(relay, service)

    def mark():
        relay.echo()
        meter.mark()

    for step, _ in STEPS:  # so that the heap has what they need
        step(steps)
    mark()  # everything until here is thrown away
    mark()  # and between these two there was nothing but a mark
    for step, times in STEPS:
        for _ in range(times):
            step(steps)
        mark()
    daemon.terminate()
    if daemon.wait() != 0:
        raise Failure(f"the daemon has ended with status {daemon.returncode}")
    nothing, *parts = meter.parts(2 + len(STEPS))
    signal.alarm(0)
    small_page, upload, large_page, new_stream, download = [
        {function: (count - nothing[function]) / times for function, count in part.items()}
        for part, (_, times) in zip(parts, STEPS)]
    return {"request": small_page, "stream": new_stream,
            "page": per_kb(large_page, small_page, LARGE - SMALL),
            "download": per_kb(download, {}, BULK), "upload": per_kb(upload, {}, BULK)}


def show_functions(meter, load, functions):
    print(f"\n{meter}: {LOADS[load]}: {sum(functions.values()):.0f} instructions")
    for function, count in sorted(functions.items(), key=lambda item: -item[1])[:FUNCTIONS]:
        print(f"{count:12.1f}  {function}")


def kept_read(path):
    try:
        with open(path) as file:
            return {tuple(words[:2]): int(words[2])
                    for words in map(str.split, file) if words and words[0] != "#"}
    except FileNotFoundError:
        return {}


def arguments():
    parser = argparse.ArgumentParser()
    parser.add_argument("--work", required=True, help="a folder for this run")
    parser.add_argument("--kept", required=True, help="the file with the figures to compare with")
    parser.add_argument("--keep", action="store_true", help="write that file")
    parser.add_argument("--each", action="store_true", help="every run's figures")
    return parser.parse_args()


def main():
    options = arguments()
    signal.signal(signal.SIGALRM, too_late)
    kept, figures = kept_read(options.kept), {}
    rows = [["instructions", "", "kept", "now", "change"]]
    for meter, program in ((Callgrind, "build/release/gwad"), (Qemu, "build/mipsel/gwad")):
        runs = [run(options.work, meter(options.work, program), number) for number in range(RUNS)]
        for load in LOADS:
            functions = middle([each[load] for each in runs])
            show_functions(meter.name, load, functions)
            if options.each:
                print("each run:", *(f"{sum(each[load].values()):.1f}" for each in runs))
            key, now = (meter.name, load), round(sum(functions.values()))
            if load not in NOT_COMPARED:
                figures[key] = now
            before = kept.get(key)
            rows.append([LOADS[load], meter.name, str(before or ""), str(now),
                         f"{(now / before - 1) * 100:+.1f} %" if before else ""])
    print("\n" + table.text(rows))
    if options.keep:
        with open(options.kept, "w") as file:
            file.write(HEAD + "".join(f"{name:8} {load:10} {count}\n"
                                      for (name, load), count in figures.items()))
        return
    grown = [" ".join(key) for key, count in figures.items() if count > kept.get(key, 0) * GROWTH_MAX]
    if grown:
        raise Failure(f"grown by more than a tenth: {', '.join(grown)}. If it has to be, write the "
                      "figures anew with scripts/bench --count --keep")


if __name__ == "__main__":
    try:
        main()
    except Failure as failure:
        sys.exit(f"bench: {failure}")
