"""Remote users: each does one thing after the other, at random, and looks at each byte he gets."""

import asyncio
import contextlib
import random

from pattern import WrongBytes, check
from services import PIECE, head_of, reset, send_pattern, take_pattern

REQUEST_LIMIT_S = 60  # beyond it a request hangs
SLOW_USERS = 4        # at once: each may hold back one of the five data connections
LEAVE_S = 3           # the most that somebody waits for a service that never gets on
PAUSE_S = 0.3         # after a connection that did not last
SLOW_BYTES, SLOW_S, SLOW_LIMIT_S = 8 << 10, 0.1, 15

# What users do, and how often.
WISHES = {"down": 30, "chunked": 10, "up": 20, "both": 10, "echo": 5, "refused": 5, "trickle": 5,
          "sip": 5, "unending": 1, "leave": 8, "slow": 3, "mute": 2, "deaf": 2, "reset": 3}


class Cut(Exception):
    """A response is not what it should be, or not whole."""


class Hung(Exception):
    """A request has come to no end. Most faults cut it, and none lasts that long but silence."""


class User:
    def __init__(self, run, seed):
        self.run = run
        self.random = random.Random(seed)

    async def live(self):
        while not self.run.stopping:
            wish, began = "connect", self.run.now()
            try:
                reader, writer = await asyncio.open_connection("127.0.0.1", self.run.front_port,
                                                               limit=PIECE)
                with contextlib.closing(writer):
                    goes_on = True
                    while goes_on and not self.run.stopping and self.random.random() > 0.1:
                        wish, began = self.wish(), self.run.now()
                        goes_on = await self.within_limit(getattr(self, wish)(reader, writer))
                        self.run.did(wish)
            except (Cut, Hung, OSError, EOFError) as why:
                self.run.broke(wish, began, why)
                await asyncio.sleep(PAUSE_S)
            except WrongBytes as wrong:
                self.run.fail(str(wrong))

    @staticmethod
    async def within_limit(request):
        try:
            async with asyncio.timeout(REQUEST_LIMIT_S):
                return await request
        except TimeoutError:
            raise Hung(f"nothing more after {REQUEST_LIMIT_S} s") from None

    def wish(self):
        wish = self.random.choices(list(WISHES), WISHES.values())[0]
        return "down" if wish == "slow" and self.run.slow_users >= SLOW_USERS else wish

    def size(self, most=None):
        """Of all magnitudes alike."""
        return int((most or self.run.largest) ** self.random.random())

    def request(self, writer, kind, stream, size, more="", method="GET", port=None):
        path = f"/{self.run.box}/{port or self.run.services.port}/{kind}/{stream}/{size}"
        writer.write(f"{method} {path} HTTP/1.1\r\nHost: localhost\r\n{more}\r\n".encode())

    async def answer(self, reader, wanted=b"200"):
        """The headers of a response."""
        line, headers = await head_of(reader)
        if line is None:
            raise Cut("the connection has ended before the response")
        if line.split()[1] != wanted:
            raise Cut(line.decode())
        return headers

    async def take(self, reader, stream, size):
        if not await take_pattern(reader, stream, size, "at a user", self.run.count_down):
            raise Cut(f"stream {stream} has ended before its {size} bytes")

    async def get(self, reader, writer, kind, size):
        stream = self.run.stream()
        self.request(writer, kind, stream, size)
        headers = await self.answer(reader)
        await self.take(reader, stream, size)
        return headers.get(b"connection") != b"close"

    async def down(self, reader, writer):
        return await self.get(reader, writer, "down", self.size())

    async def trickle(self, reader, writer):
        return await self.get(reader, writer, "trickle", self.size(20_000))

    async def chunked(self, reader, writer):
        stream, size = self.run.stream(), self.size()
        self.request(writer, "chunked", stream, size)
        headers = await self.answer(reader)
        got = 0
        while length := int(await reader.readuntil(b"\r\n"), 16):
            piece = await reader.readexactly(length)
            await reader.readexactly(2)
            check(stream, got, piece, "at a user")
            got += length
            self.run.count_down(length)
        await reader.readexactly(2)
        if got != size:
            raise Cut(f"stream {stream}: a last chunk after {got} of {size} bytes")
        return headers.get(b"connection") != b"close"

    async def unending(self, reader, writer):
        await self.get(reader, writer, "unending", self.size(100_000))
        if await reader.read(1):
            raise Cut("more than there should be")
        return False

    async def post(self, reader, writer, kind, size):
        stream = self.run.stream()
        self.request(writer, kind, stream, size, f"Content-Length: {size}\r\n", "POST")
        await send_pattern(writer, stream, size)
        headers = await self.answer(reader)
        return headers.get(b"connection") != b"close"

    async def up(self, reader, writer):
        return await self.post(reader, writer, "up", self.size())

    async def sip(self, reader, writer):
        return await self.post(reader, writer, "sip", self.run.largest)

    async def both(self, reader, writer):
        stream, size = self.run.stream(), self.size()
        self.request(writer, "both", stream, size, "Connection: Upgrade\r\nUpgrade: soak\r\n")
        await self.answer(reader, b"101")
        sending = asyncio.ensure_future(send_pattern(writer, stream + 1, size))
        try:
            await self.take(reader, stream, size)
            await sending
        finally:
            sending.cancel()
        return False

    async def echo(self, reader, writer):
        self.request(writer, "?x-qv-gwad-opt=echo&", 0, 0, port=10010)
        headers = await self.answer(reader)
        if await reader.readexactly(int(headers[b"content-length"])) != b"echo":
            raise Cut("another echo")
        return headers.get(b"connection") != b"close"

    async def refused(self, reader, writer):
        self.request(writer, "down", 0, 0, port=self.run.closed_port)
        await self.answer(reader, b"502")
        return False

    # From here on a user gets no whole response, and what he gets is right.

    async def leave(self, reader, writer):
        """In the middle of a response or of a body, in order or not."""
        stream, size = self.run.stream(), self.run.largest
        if self.random.random() < 0.5:
            self.request(writer, "down", stream, size)
            await self.answer(reader)
            await self.take(reader, stream, self.size())
        else:
            self.request(writer, "up", stream, size, f"Content-Length: {size}\r\n", "POST")
            await send_pattern(writer, stream, self.size())
        if self.random.random() < 0.5:
            reset(writer)
        return False

    async def slow(self, reader, writer):
        """So little at a time that the relay may cut him."""
        stream, got, limit = self.run.stream(), 0, self.run.now() + SLOW_LIMIT_S
        self.request(writer, "flood", stream, 0)
        await self.answer(reader)
        with contextlib.suppress(OSError), self.run.slow_user():
            while self.run.now() < limit and (piece := await reader.read(SLOW_BYTES)):
                check(stream, got, piece, "at a slow user")
                got += len(piece)
                self.run.count_down(len(piece))
                await asyncio.sleep(self.random.random() * SLOW_S)
        return False

    async def waits_in_vain(self, reader, writer, kind, size, method="GET"):
        more = f"Content-Length: {size}\r\n" if method == "POST" else ""
        stream = self.run.stream()
        self.request(writer, kind, stream, size, more, method)
        with contextlib.suppress(TimeoutError):
            async with asyncio.timeout(self.random.random() * LEAVE_S):
                if method == "POST":
                    await send_pattern(writer, stream, size)
                await self.answer(reader)
                await self.take(reader, stream, 2 * size)
        return False

    async def mute(self, reader, writer):
        return await self.waits_in_vain(reader, writer, "mute", 0)

    async def reset(self, reader, writer):
        return await self.waits_in_vain(reader, writer, "reset", self.size(200_000))

    async def deaf(self, reader, writer):
        return await self.waits_in_vain(reader, writer, "deaf", self.size(), "POST")
