"""The box's local services. A path says what becomes of a connection: /KIND/STREAM/SIZE."""

import asyncio
import contextlib
import socket
import struct

from pattern import check, pattern

PIECE = 64 << 10
OK = b"HTTP/1.1 200 OK\r\n"
LENGTH = OK + b"Content-Length: %d\r\n\r\n"
SWITCHED = b"HTTP/1.1 101 Switching Protocols\r\nConnection: Upgrade\r\nUpgrade: soak\r\n\r\n"
FOREVER = 1 << 40
TRICKLE_BYTES, TRICKLE_S = 700, 0.02
SIP_S = 0.3
MUTE_S = 60


async def head_of(reader):
    """First line and headers of a request or response. None: the connection has ended."""
    try:
        lines = (await reader.readuntil(b"\r\n\r\n")).split(b"\r\n")
    except asyncio.IncompleteReadError:
        return None, {}
    pairs = (line.lower().partition(b":") for line in lines[1:])
    return lines[0], {name: value.strip() for name, _, value in pairs}


async def send_pattern(writer, stream, size, piece=PIECE, pause_s=0):
    for offset in range(0, size, piece):
        writer.write(pattern(stream, offset, min(piece, size - offset)))
        await writer.drain()
        if pause_s:
            await asyncio.sleep(pause_s)


async def take_pattern(reader, stream, size, where, count):
    """False: the connection has ended before."""
    got = 0
    while got < size:
        if not (piece := await reader.read(min(PIECE, size - got))):
            return False
        check(stream, got, piece, where)
        got += len(piece)
        count(len(piece))
    return True


def reset(writer):
    """What has not left yet is thrown away, and the peer learns of it at once."""
    if (sock := writer.get_extra_info("socket")) is not None:
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    writer.transport.abort()


class Services:
    """A connection serves one request after the other, as long as these end cleanly."""

    def __init__(self, run):
        self.run = run

    async def start(self):
        self.server = await asyncio.start_server(self.serve, "127.0.0.1", 0, limit=PIECE,
                                                 backlog=1024)
        self.port = self.server.sockets[0].getsockname()[1]

    async def serve(self, reader, writer):
        with self.run.guarded(), contextlib.closing(writer):
            goes_on = True
            while goes_on:
                line, headers = await head_of(reader)
                if line is None:
                    return
                kind, stream, size = line.split()[1].partition(b"?")[0].split(b"/")[1:]
                length = int(headers.get(b"content-length", 0))
                goes_on = await getattr(self, kind.decode())(reader, writer, int(stream), int(size),
                                                             length)

    async def down(self, _reader, writer, stream, size, _length):
        writer.write(LENGTH % size)
        await send_pattern(writer, stream, size)
        return True

    async def chunked(self, _reader, writer, stream, size, _length):
        writer.write(OK + b"Transfer-Encoding: chunked\r\n\r\n")
        for offset in range(0, size, PIECE):
            piece = pattern(stream, offset, min(PIECE, size - offset))
            writer.write(b"%x\r\n%b\r\n" % (len(piece), piece))
            await writer.drain()
        writer.write(b"0\r\n\r\n")
        return True

    async def trickle(self, _reader, writer, stream, size, _length):
        writer.write(LENGTH % size)
        await send_pattern(writer, stream, size, TRICKLE_BYTES, TRICKLE_S)
        return True

    async def unending(self, _reader, writer, stream, size, _length):
        """Tells no length, and closes: on the wire that is silence."""
        writer.write(OK + b"\r\n")
        await send_pattern(writer, stream, size)
        return False

    async def flood(self, _reader, writer, stream, _size, _length):
        writer.write(LENGTH % FOREVER)
        await send_pattern(writer, stream, FOREVER)
        return False

    async def up(self, reader, writer, stream, size, length):
        if length != size:
            self.run.fail(f"stream {stream}: a body of {length} bytes at the service, not {size}")
        if not await take_pattern(reader, stream, size, "at a service", self.run.count_up):
            return False
        writer.write(LENGTH % 0)
        return True

    async def sip(self, reader, writer, stream, size, length):
        """Takes a body late, so that much of it waits at the daemon."""
        await asyncio.sleep(SIP_S)
        return await self.up(reader, writer, stream, size, length)

    async def deaf(self, _reader, _writer, _stream, _size, _length):
        """Takes nothing of a body."""
        await asyncio.sleep(MUTE_S)
        return False

    async def mute(self, reader, _writer, _stream, _size, _length):
        """Takes all and never answers."""
        while await reader.read(PIECE):
            pass
        return False

    async def reset(self, _reader, writer, stream, size, _length):
        writer.write(LENGTH % (2 * size))
        await send_pattern(writer, stream, size)
        reset(writer)
        return False

    async def both(self, reader, writer, stream, size, _length):
        """Both directions at once, no longer HTTP."""
        writer.write(SWITCHED)
        sending = asyncio.ensure_future(send_pattern(writer, stream, size))
        try:
            taken = await take_pattern(reader, stream + 1, size, "at a service", self.run.count_up)
            await sending
        finally:
            sending.cancel()
        while taken and await reader.read(PIECE):
            pass  # the user closes
        return False
