"""A relay that has lost its mind, in the place of the real one: logins work, then come frames as no
relay sends them, in pieces, and connections that end anywhere."""

import asyncio
import contextlib
import random

from relay import DATA, HEADER, LOGIN_ANSWER, PAYLOAD_MAX, frame

CLOSE, NEW_DATA, DATA_CONNECTIONS = 6, 7, 5
ORDER_MAX = 127  # a longer one ends the daemon by design
# The daemon takes what is no frame there for headers, some hundred a second; what waits beyond that
# would have to be taken before the real relay is.
CONTROL_PAYLOAD_MAX = 64
PAUSE_S = 0.2


def mad_frame(dice, box, port, most):
    """Mostly what a relay could send: what cannot be a frame at all ends a data connection."""
    kind = dice.random()
    if kind < 0.4:
        request = f"GET /mute/0/0?x-qv-devid={box}&x-qv-port={port} HTTP/1.1\r\n\r\n".encode()
        return frame(DATA, dice.randrange(1 << 32), request[:dice.randrange(len(request) + 40)])
    if kind < 0.7:
        return frame(DATA, dice.randrange(8), dice.randbytes(dice.randrange(most + 1)))
    if kind < 0.9:
        command = dice.choice([each for each in range(1, 13) if each not in (CLOSE, NEW_DATA)])
        return frame(command, dice.randrange(8), dice.randbytes(dice.choice([0, 4, 8, 32, 200])),
                     dice.randrange(1, 4), dice.randrange(2))
    if kind < 0.95:
        return frame(NEW_DATA, 0, dice.randbytes(dice.randrange(ORDER_MAX)), 1, 1)
    return dice.randbytes(HEADER.size)


class Rogue:
    def __init__(self, run):
        self.run, self.dice = run, random.Random(run.random.random())  # how often depends on time
        self.frames, self.tasks = 0, set()

    async def rage(self, seconds):
        ports = self.run.ports
        servers = [await asyncio.start_server(self.guard(serve), "0.0.0.0", ports[name])
                   for name, serve in (("manager", self.manager), ("control", self.control),
                                       ("data", self.data))]
        await asyncio.sleep(seconds)
        for server in servers:
            server.close()
        for task in list(self.tasks):
            task.cancel()
        await asyncio.gather(*self.tasks, return_exceptions=True)

    def guard(self, serve):
        async def guarded(reader, writer):
            task = asyncio.current_task()
            self.tasks.add(task)
            with contextlib.suppress(OSError, EOFError, asyncio.CancelledError), \
                    contextlib.closing(writer):
                await serve(reader, writer)
            self.tasks.discard(task)
        return guarded

    async def manager(self, reader, writer):
        await reader.readuntil(b"\r\n\r\n")
        good = b'{"ret":0,"proxy":"%s:%d"}' % (self.run.address.encode(), self.run.ports["control"])
        body = good if self.dice.random() < 0.8 else self.dice.randbytes(self.dice.randrange(600))
        writer.write(b"HTTP/1.1 200 OK\r\n\r\n" + body)

    async def control(self, reader, writer):
        await self.login(reader)
        order = f'host1host2host3host4host5 "{self.run.address}" port1port2port3port4port5 '
        writer.write(frame(LOGIN_ANSWER, 0, (order + f'"{self.run.ports["data"]}"').encode(), 2, 1))
        await asyncio.sleep(DATA_CONNECTIONS)
        await self.rave(reader, writer, CONTROL_PAYLOAD_MAX)

    async def data(self, reader, writer):
        await self.login(reader)
        writer.write(frame(LOGIN_ANSWER, 0, b"", 1, 1))
        await self.rave(reader, writer, PAYLOAD_MAX)

    async def login(self, reader):
        length = HEADER.unpack(await reader.readexactly(HEADER.size))[-1]
        await reader.readexactly(length)

    async def rave(self, reader, writer, most):
        swallow = asyncio.ensure_future(self.swallow(reader))
        try:
            while not swallow.done():
                many = b"".join(mad_frame(self.dice, self.run.box, self.run.services.port, most)
                                for _ in range(self.dice.randrange(1, 20)))
                self.frames += 1
                cut = self.dice.randrange(len(many) + 1)
                for piece in (many[:cut], many[cut:]):
                    writer.write(piece)
                    await writer.drain()
                    await asyncio.sleep(self.dice.random() * PAUSE_S)
        finally:
            swallow.cancel()

    async def swallow(self, reader):
        with contextlib.suppress(OSError):
            while self.dice.random() > 0.002 and await reader.read(1 << 16):
                pass
