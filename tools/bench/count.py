"""Counts the daemon's instructions for a few loads: see scripts/bench --count, which calls this.

Time differs from machine to machine and from run to run, instructions hardly: what is left comes from
rounds that find more or less to do, and the least of a few runs is free of most of it."""

import argparse
import re
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
GROWTH_MAX = 1.1
FUNCTIONS = 10
DEVICE = "count"
PAGE_BYTES, BULK_BYTES, REQUESTS = 1200, 8_000_000, 100
# Between the steps of a small request, so that each finds the daemon at rest: what comes together
# costs less than what comes one by one, and which it is must not depend on time.
REST_S = 0.003
HEAD = ("# Instructions that gwad executes, the least of %d runs. Written by scripts/bench --count --keep;\n"
        "# scripts/bench --count fails when one of them has grown by more than a tenth.\n" % RUNS)


class Service(socketserver.ThreadingTCPServer):
    """GET /N is answered with N bytes in one piece, a POST after its last byte with a page. It tells
    when a connection has ended."""

    daemon_threads = True

    def __init__(self):
        super().__init__(("127.0.0.1", 0), Connection)
        self.port = self.server_address[1]
        self.ended = threading.Semaphore(0)
        threading.Thread(target=self.serve_forever, daemon=True).start()


class Connection(socketserver.BaseRequestHandler):
    def handle(self):
        nothing = bytearray(1 << 20)
        self.request.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        while head := self.request.recv(4096):  # a head is one frame, and comes at once
            size = int(re.match(rb"GET /(\d+)|", head)[1] or PAGE_BYTES)
            left = int((re.search(rb"Content-Length: (\d+)", head) or [0, 0])[1])
            left -= len(head.partition(b"\r\n\r\n")[2])
            while left > 0:
                left -= self.request.recv_into(nothing, min(left, len(nothing)), socket.MSG_TRUNC)
            time.sleep(REST_S)
            self.request.sendall(bytes(size))
        self.server.ended.release()


class Loads:
    """Each on the relay's side of the wire, and how many units it has."""

    def __init__(self, relay, service):
        self.relay, self.service = relay, service
        self.kept = relay.open()  # one stream for everything but new streams

    def get(self, stream, size):
        self.relay.request(stream, self.service.port, "GET", f"/{size}")
        self.relay.receive(size)

    def download(self):
        """A download, per KB"""
        self.get(self.kept, BULK_BYTES)
        return BULK_BYTES // 1000

    def upload(self):
        """An upload, per KB"""
        self.relay.request(self.kept, self.service.port, "POST", "/",
                           headers=f"Content-Length: {BULK_BYTES}\r\n")
        self.relay.send(self.kept, BULK_BYTES)
        self.relay.receive(PAGE_BYTES)
        return BULK_BYTES // 1000

    def request(self):
        """A small request on an open stream"""
        for _ in range(REQUESTS):
            self.get(self.kept, PAGE_BYTES)
            time.sleep(REST_S)
        return REQUESTS

    def stream(self):
        """A small request on a new stream, which is closed"""
        for _ in range(REQUESTS):
            self.get(stream := self.relay.open(), PAGE_BYTES)
            time.sleep(REST_S)
            self.relay.close(stream)
            self.service.ended.acquire()
            time.sleep(REST_S)
        return REQUESTS


LOADS = [Loads.request, Loads.upload, Loads.download, Loads.stream]


def run(work, meter, number):
    """Instructions by function for a unit of each load, in one life of the daemon."""
    relay, service = Relay(), Service()
    daemon = gwad_start(work, meter.command, f"{DEVICE}-{meter.name}-{number}", relay.manager_port, 3,
                        meter.environment)
    relay.log_in(f"{DEVICE}-{meter.name}-{number}")
    meter.started(daemon)
    loads, units = Loads(relay, service), []

    def mark():
        relay.echo()
        meter.mark()

    loads.get(loads.kept, PAGE_BYTES)
    mark()  # everything until here is thrown away
    mark()  # and between these two there was nothing but a mark
    for load in LOADS:
        units.append(load(loads))
        mark()
    daemon.terminate()
    if daemon.wait() != 0:
        raise Failure(f"the daemon has ended with status {daemon.returncode}")
    nothing, *parts = meter.parts(2 + len(LOADS))
    return [{function: (count - nothing[function]) / unit for function, count in part.items()}
            for part, unit in zip(parts, units)]


def least(runs):
    return min(runs, key=lambda functions: sum(functions.values()))


def show_functions(meter, load, functions):
    print(f"\n{meter}: {load.__doc__}: {sum(functions.values()):.0f} instructions")
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
    kept, figures = kept_read(options.kept), {}
    rows = [["instructions", "", "kept", "now", "change"]]
    for meter, program in ((Callgrind, "build/release/gwad"), (Qemu, "build/mipsel/gwad")):
        runs = [run(options.work, meter(options.work, program), number) for number in range(RUNS)]
        for load, *all_functions in zip(LOADS, *runs):
            functions = least(all_functions)
            show_functions(meter.name, load, functions)
            if options.each:
                print("each run:", *(f"{sum(each.values()):.1f}" for each in all_functions))
            key, now = (meter.name, load.__name__), round(sum(functions.values()))
            figures[key] = now
            before = kept.get(key)
            rows.append([load.__doc__, meter.name, str(before or "-"), str(now),
                         f"{(now / before - 1) * 100:+.1f} %" if before else "-"])
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
