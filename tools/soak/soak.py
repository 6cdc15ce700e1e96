"""Real programs, users, services and faults, all at random: see scripts/soak, which calls this."""

import argparse
import asyncio
import collections
import contextlib
import json
import os
import pathlib
import random
import sys
import time
import traceback

sys.path.append(str(pathlib.Path(__file__).resolve().parent.parent / "bench"))

from faults import Faults
from pattern import WrongBytes, check
from processes import Programs
from programs import free_port
from services import PIECE, Services, head_of
from rest import Rest
from users import REQUEST_LIMIT_S, Hung, User

CALM_S = (1, 6)     # between two faults
LAST_FAULT_S = 15   # of a run, without a new one
STATUS_S = 5
# What a program may keep over its memory at the start: a heap has holes after many users, and
# a sanitizer keeps what has been freed.
SPARE_KB = {"gwad": 16 << 10, "gwrelay": 32 << 10}
PORTS = ("manager", "control", "data", "front")


def arguments():
    parser = argparse.ArgumentParser()
    parser.add_argument("--work", required=True, help="a folder for this run")
    parser.add_argument("--programs", required=True, help="the folder of gwad and gwrelay")
    parser.add_argument("--minutes", type=float, required=True)
    parser.add_argument("--seed", type=int, required=True)
    parser.add_argument("--only", choices=Faults.KINDS, help="no other fault")
    parser.add_argument("--load", choices=("full", "light"), required=True)
    return parser.parse_args()


class Run:
    box, address = "soak-box", "10.99.1.1"

    def __init__(self, options):
        self.work, self.seed = os.path.abspath(options.work), options.seed
        self.seconds, self.started = options.minutes * 60, time.monotonic()
        light = options.load == "light"
        self.users, self.largest = (8, 1 << 20) if light else (24, 4 << 20)
        self.patience = 2 if light else 1
        self.spare_kb = {name: kb * (8 if light else 1) for name, kb in SPARE_KB.items()}
        self.random = random.Random(self.seed)
        *ports, self.closed_port = self.free_ports(len(PORTS) + 1)
        self.ports = dict(zip(PORTS, ports))
        self.front_port = self.ports["front"]
        self.failures, self.streams = [], 0
        self.stopping = False
        self.done, self.cut = collections.Counter(), collections.Counter()
        self.up = self.down = self.slow_users = 0
        self.services = Services(self)
        self.programs = Programs(self, os.path.abspath(options.programs))
        self.faults = Faults(self, options.only)
        self.rest = Rest(self)

    @staticmethod
    def free_ports(count):
        ports = set()
        while len(ports) < count:
            ports.add(free_port())
        return list(ports)

    def now(self):
        return time.monotonic()

    def wall(self):
        return time.time()

    def say(self, text):
        print(f"{self.now() - self.started:7.1f} s  {text}", flush=True)

    @property
    def failed(self):
        return bool(self.failures)

    def fail(self, text):
        """What must not be: the run ends soon, so that what has happened is still fresh."""
        self.failures.append(text)
        self.say(f"FAILED: {text}")

    # What users and services tell.

    def stream(self):
        """Two numbers that nobody else has: for one direction each."""
        self.streams += 2
        return self.streams

    def count_up(self, size):
        self.up += size

    def count_down(self, size):
        self.down += size

    @contextlib.contextmanager
    def slow_user(self):
        self.slow_users += 1
        try:
            yield
        finally:
            self.slow_users -= 1

    def did(self, wish):
        self.done[wish] += 1

    def broke(self, wish, began, why):
        self.cut[wish] += 1
        explained = self.faults.was_silent if isinstance(why, Hung) else self.faults.disturbed
        if not explained(began):
            time_s = self.now() - began
            self.fail(f"a user's {wish}, after {time_s:.1f} s, without a fault: {why!r}")

    @contextlib.contextmanager
    def guarded(self):
        """A connection may end anywhere; nothing else may go wrong on it."""
        try:
            yield
        except (OSError, EOFError):
            pass
        except WrongBytes as wrong:
            self.fail(str(wrong))

    def task(self, work):
        """One whose own mistakes are told at once."""
        def ended(task):
            if not task.cancelled() and task.exception():
                self.fail("".join(traceback.format_exception(task.exception())))

        task = asyncio.ensure_future(work)
        task.add_done_callback(ended)
        return task

    # What the relay tells.

    async def ask(self, path):
        reader, writer = await asyncio.open_connection("127.0.0.1", self.front_port, limit=PIECE)
        with contextlib.closing(writer):
            writer.write(f"GET {path} HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n".encode())
            line, headers = await head_of(reader)
            if line is None or line.split()[1] != b"200":
                return None
            return await reader.readexactly(int(headers[b"content-length"]))

    async def status(self):
        """What it says of itself, or None when it does not answer."""
        with contextlib.suppress(OSError, EOFError, TimeoutError):
            async with asyncio.timeout(STATUS_S):
                return json.loads(await self.ask("/status.json") or "null")
        return None

    async def device(self):
        status = await self.status() or {"devices": []}
        return next((each for each in status["devices"] if each["id"] == self.box), None)

    async def is_whole(self):
        device = await self.device()
        return device is not None and device["control"] and device["data_connections"] == 5

    async def probe(self, size):
        stream = self.stream()
        got = await self.ask(f"/{self.box}/{self.services.port}/down/{stream}/{size}")
        if got is not None:
            check(stream, 0, got, "at the probe")
        return got is not None and len(got) == size

    # The run itself.

    async def live(self):
        asyncio.get_running_loop().set_exception_handler(
            lambda _, context: self.fail(f"{context['message']}: {context.get('exception')!r}"))
        watching = self.task(self.programs.watch())
        await self.faults.prepare()
        await self.services.start()
        await self.programs.start_relay()
        self.programs.start_gwad()
        if not await self.faults.until(self.is_whole, self.now() + 20 * self.patience):
            self.fail("the daemon does not come up")
        await self.rest.remember()
        if not self.failed:
            await self.soak()
        if not self.failed:
            await self.rest.check()
        self.rest.remember_end()
        for name in self.programs.pid:
            await self.programs.stop(name)
        asyncio.get_running_loop().set_exception_handler(lambda *_: None)  # of those cut off now
        watching.cancel()

    async def soak(self):
        end = self.now() + self.seconds
        self.say(f"{self.users} users, up to {self.largest >> 10} KB a stream, seed {self.seed}")
        users = [self.task(User(self, self.random.random()).live()) for _ in range(self.users)]
        while not self.failed and self.now() < end:
            await asyncio.sleep(min(self.random.uniform(*CALM_S), end - self.now()))
            if not self.failed and self.now() < end - LAST_FAULT_S:
                await self.faults.strike()
        self.stopping = True
        self.say("the users leave")
        _, left = await asyncio.wait(users, timeout=REQUEST_LIMIT_S)
        for user in left:
            self.fail("a user hangs")
            user.cancel()


def table(run):
    """What has happened, as it stands in the documents."""
    mb, minutes = 1 << 20, (run.now() - run.started) / 60
    print(f"\n{minutes:.1f} minutes, seed {run.seed}: {sum(run.done.values())} streams, "
          f"{run.down / mb:.0f} MB to users, {run.up / mb:.0f} MB from users, "
          f"{sum(run.cut.values()) - run.cut['connect']} cut by faults, {len(run.failures)} failures\n")
    print("| Users' wishes | done | cut |\n|---|--:|--:|")
    for wish in sorted(run.done | run.cut):
        print(f"| {wish} | {run.done[wish]} | {run.cut[wish]} |")
    print("\n| Fault | times | served again: longest after it began | after it was over | stated "
          "|\n|---|--:|--:|--:|--:|")
    for kind, times in sorted(run.faults.figures.items()):
        began_s, over_s = map(max, zip(*times))
        print(f"| {kind} | {len(times)} | {began_s:.1f} s | {over_s:.1f} s | "
              f"{run.faults.KINDS[kind][1] * run.patience} s |")
    print("\n| Program | starts | processor | memory: before, at the end, most | "
          "descriptors: before, at the end, most | threads |\n|---|--:|--:|--:|--:|--:|")
    for name, each in run.programs.figures.items():
        (before, before_kb), (after, after_kb) = run.rest.before[name], run.rest.after[name]
        print(f"| {name} | {each.starts} | {each.cpu_s():.1f} s "
              f"| {before_kb}, {after_kb}, {each.peak_kb} KB "
              f"| {before}, {after}, {each.most_descriptors} | {each.most_threads} |")


def main():
    run = Run(arguments())
    asyncio.run(run.live())
    table(run)
    for failure in run.failures:
        print(f"FAILED: {failure}")
    sys.exit(bool(run.failures))


main()
