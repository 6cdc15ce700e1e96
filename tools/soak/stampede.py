"""A relay that restarts gets all its boxes back at once: see scripts/soak, which calls this.

Many boxes in one process speak the daemon's side of the wire and keep its pauses: 2 s before a
process that has restarted begins, 10 s after nobody was found, a second between the orders to the
data connections. All lose the relay in the same moment, so all come back in the same one."""

import argparse
import asyncio
import collections
import contextlib
import os
import pathlib
import re
import resource
import sys
import time

sys.path.append(str(pathlib.Path(__file__).resolve().parent.parent / "bench"))

from programs import Failure, free_port, peak_kb, start, tree_cpu_s, wait_for
from relay import DATA, DATA_CONNECTIONS, HEADER, HEARTBEAT, SESSION_ID, frame

RESTART_S, RETRY_S, ORDER_S = 2, 10, 1
CONNECT_S, ANSWER_S = 10, 60
HEARTBEAT_S = 60
LIMIT_S = 60            # until all are back
DESCRIPTORS = 1024
AWAY_S = (0, 7)         # of the relay: at once, and so that all have found nobody
ECHO = b"HTTP/1.1 200 OK\r\nContent-Type:text/plain\r\nContent-Length:%d\r\n\r\n%b"


class Lost(Exception):
    """A connection or a login has come to nothing."""


class Crowd:
    """What the boxes tell of themselves."""

    def __init__(self, ports):
        self.ports = ports
        self.control = self.data = 0          # connections that are logged in
        self.vain = collections.Counter()     # what has failed, and why

    def failed(self, what, why):
        self.vain[f"{what}: {why!r}"] += 1


class Box:
    def __init__(self, crowd, number):
        self.crowd, self.id = crowd, f"box-{number}"
        self.info = (f'{{"deviceid":"{self.id}","mac":"02:00:00:00:00:07","ip":"192.0.2.7",'
                     '"fwver":"1.2.3","prover":"0","component":"soak","terminal":"none"}').encode()

    async def live(self):
        """One process of the daemon after the other."""
        while True:
            await self.process()
            await asyncio.sleep(RESTART_S)

    async def process(self):
        """Ends with its control connection."""
        workers = []
        try:
            reader, writer, port = await self.until_logged_in()
            with contextlib.closing(writer):
                self.crowd.control += 1
                try:
                    workers = [asyncio.ensure_future(self.worker(port, number * ORDER_S))
                               for number in range(DATA_CONNECTIONS)]
                    await self.relay(reader, writer, True)
                finally:
                    self.crowd.control -= 1
        except (OSError, EOFError):
            pass
        finally:
            for worker in workers:
                worker.cancel()
            await asyncio.gather(*workers, return_exceptions=True)

    async def until_logged_in(self):
        while True:
            what = "discovery"
            try:
                port = await self.discover()
                what = "control login"
                reader, writer, order = await self.login(port, 3)
                writer.write(frame(SESSION_ID, 0, b"", 1, 1))
                return reader, writer, int(re.search(rb'port1\D*(\d+)', order)[1])
            except (Lost, OSError, EOFError, TimeoutError) as why:
                self.crowd.failed(what, why)
                await asyncio.sleep(RETRY_S)

    async def discover(self):
        async with asyncio.timeout(CONNECT_S):
            reader, writer = await asyncio.open_connection("127.0.0.1", self.crowd.ports["manager"])
        with contextlib.closing(writer):
            writer.write(f"GET /addrmgr/device_get_proxy?devid={self.id} HTTP/1.1\r\n"
                         "Host: localhost\r\nConnection: Close\r\n\r\n".encode())
            async with asyncio.timeout(CONNECT_S):
                answer = await reader.read(512)  # once, as the daemon
        found = re.search(rb'\r\n\r\n\{"ret":0.*?"127\.0\.0\.1:(\d+)"', answer)
        if not found:
            raise Lost(f"an answer of {len(answer)} bytes")
        return int(found[1])

    async def login(self, port, version):
        async with asyncio.timeout(CONNECT_S):
            reader, writer = await asyncio.open_connection("127.0.0.1", port)
        try:
            writer.write(frame(3, 0, self.info, version, 1))
            async with asyncio.timeout(ANSWER_S):
                command, _, payload = await self.read(reader)
            if command != 5:
                raise Lost(f"command {command} for an answer")
        except BaseException:
            writer.close()
            raise
        return reader, writer, payload

    async def read(self, reader):
        _, _, command, _, stream, length = HEADER.unpack(await reader.readexactly(HEADER.size))
        return command, stream, await reader.readexactly(length)

    async def worker(self, port, wait_s):
        """A data connection, made anew when it ends."""
        await asyncio.sleep(wait_s)
        while True:
            try:
                reader, writer, _ = await self.login(port, 2)
            except (Lost, OSError, EOFError, TimeoutError) as why:
                self.crowd.failed("data login", why)
                await asyncio.sleep(RETRY_S)
                continue
            with contextlib.closing(writer), contextlib.suppress(OSError, EOFError):
                self.crowd.data += 1
                try:
                    await self.relay(reader, writer, False)
                finally:
                    self.crowd.data -= 1

    async def relay(self, reader, writer, is_control):
        """Until the end of the connection. The first heartbeat of a control connection is early."""
        beating = asyncio.ensure_future(self.beat(writer, 0 if is_control else HEARTBEAT_S))
        try:
            while True:
                command, stream, payload = await self.read(reader)
                if command == DATA:
                    writer.write(frame(DATA, stream, self.answer(payload)))
        finally:
            beating.cancel()

    async def beat(self, writer, wait_s):
        number = 0
        while True:
            await asyncio.sleep(wait_s)
            writer.write(frame(HEARTBEAT, 0, number.to_bytes(4, "big"), 2, 1))
            number, wait_s = number + 1, HEARTBEAT_S

    def answer(self, request):
        """Of the daemon itself, or of a service that says whose box it is on."""
        body = b"echo" if b"x-qv-gwad-opt=echo" in request else self.id.encode()
        return ECHO % (len(body), body)


def usual_descriptors():
    """What a program starts with, when nobody has raised it: the relay has to."""
    resource.setrlimit(resource.RLIMIT_NOFILE,
                       (DESCRIPTORS, resource.getrlimit(resource.RLIMIT_NOFILE)[1]))


class Stampede:
    def __init__(self, options):
        self.work, self.devices = options.work, options.devices
        self.program = f"{os.path.abspath(options.programs)}/gwrelay"
        self.ports = {name: free_port() for name in ("manager", "control", "data", "front")}
        self.crowd, self.bad = Crowd(self.ports), False

    async def relay_start(self):
        ports = [word for name, port in self.ports.items() for word in (f"--{name}-port", port)]
        self.relay = start(self.work, "gwrelay", self.program, "-q", "--config", "/dev/null",
                           *ports,
                           preexec_fn=usual_descriptors)
        await self.until("the relay", lambda: "front=" in open(self.relay.output).read(), LIMIT_S)

    async def until(self, what, question, limit_s):
        end = time.monotonic() + limit_s
        while not question():
            if time.monotonic() > end or self.relay.poll() is not None:
                raise Failure(f"{what}: not within {limit_s} s; {self.crowd.control} control and "
                              f"{self.crowd.data} data connections; {dict(self.crowd.vain)}")
            await asyncio.sleep(0.02)

    def none_left(self):
        return self.crowd.control + self.crowd.data == 0

    def all_in(self):
        return self.crowd.control == self.devices

    def all_back(self):
        return self.all_in() and self.crowd.data == self.devices * DATA_CONNECTIONS

    async def row(self, what, away_s):
        """Lets the relay restart, or start for the first time, and tells how all come to it."""
        await asyncio.sleep(away_s)
        await self.relay_start()
        began = time.monotonic()
        self.crowd.vain.clear()  # of when there was nobody to answer
        await self.until("the boxes have not seen the end of the relay", self.none_left, RESTART_S)
        await self.until("the boxes are not back", self.all_in, LIMIT_S)
        boxes_s = time.monotonic() - began
        await self.until("the data connections are not back", self.all_back, LIMIT_S - boxes_s)
        all_s = time.monotonic() - began
        slowest_s = await self.requests()
        failed = sum(self.crowd.vain.values())
        self.bad = self.bad or failed > 0
        print(f"| {what} | {boxes_s:.1f} s | {all_s:.1f} s | {failed} "
              f"| {slowest_s * 1000:.0f} ms | {tree_cpu_s(self.relay.pid):.1f} s "
              f"| {peak_kb(self.relay) >> 10} MB |", flush=True)
        for why, times in self.crowd.vain.items():
            print(f"    {times} times {why}", file=sys.stderr)

    async def requests(self):
        """One through each box, a hundred at a time. The slowest of them."""
        turns, slowest_s = asyncio.Semaphore(100), 0

        async def one(number):
            nonlocal slowest_s
            async with turns:
                began = time.monotonic()
                reader, writer = await asyncio.open_connection("127.0.0.1", self.ports["front"])
                with contextlib.closing(writer):
                    writer.write(f"GET /box-{number}/80/ HTTP/1.1\r\nHost: localhost\r\n"
                                 "Connection: close\r\n\r\n".encode())
                    answer = await asyncio.wait_for(reader.read(), LIMIT_S)
                if not answer.endswith(b"\r\n\r\nbox-%d" % number):
                    raise Failure(f"box-{number} has answered {answer!r}")
                slowest_s = max(slowest_s, time.monotonic() - began)

        await asyncio.gather(*map(one, range(self.devices)))
        return slowest_s

    async def run(self):
        print(f"{self.devices} boxes, {self.devices * DATA_CONNECTIONS} data connections\n\n"
              "| The relay | boxes logged in after | all connections after | failed "
              "| slowest of a request each | its processor | its memory |\n"
              "|---|--:|--:|--:|--:|--:|--:|", flush=True)
        boxes = [asyncio.ensure_future(Box(self.crowd, number).live())
                 for number in range(self.devices)]
        await self.row("starts", RESTART_S)
        for away_s in AWAY_S:
            self.relay.kill()
            self.relay.wait()
            await self.row(f"is killed and back after {away_s} s", away_s)
        for box in boxes:
            box.cancel()
        await asyncio.gather(*boxes, return_exceptions=True)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--work", required=True, help="a folder for this run")
    parser.add_argument("--programs", required=True, help="the folder of gwrelay")
    parser.add_argument("--devices", type=int, required=True)
    options = parser.parse_args()
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
    stampede = Stampede(options)
    try:
        asyncio.run(stampede.run())
    except Failure as failure:
        print(f"FAILED: {failure}")
        sys.exit(1)
    sys.exit(stampede.bad)


main()
