#!/usr/bin/env python3
"""Plays devices and their users to a gwrelay, for pictures of its page and for tests of it.

    devices.py CONTROL_PORT DATA_PORT FRONT_PORT COUNT [FLOWS]

COUNT devices log in, some of them leave again, and FLOWS users (12) fetch what devices send at rates
that wander. Prints "up" when that has begun, and goes on until it is ended.
"""

import asyncio
import json
import random
import resource
import struct
import sys

HEADER = struct.Struct(">BBHIII")
DATA, HEARTBEAT, INFO, CLOSE, ANSWER, PORT_INFO = 1, 2, 3, 4, 5, 12
PIECE = 8000
HOST = "127.0.0.1"
KINDS = [
    ("nas", ["3.1.4", "3.1.4", "3.0.9"], {"http_port": 80, "files_port": 5000}),
    ("router", ["22.03.7", "23.05.2", "23.05.2"], {"http_port": 80}),
    ("camera", ["1.8.0", "1.8.1"], {"http_port": 8080, "stream_port": 8554}),
    ("media", ["5.2"], {"dlna_port": 8200}),
]
PLACES = ["amsterdam", "bergen", "cork", "delft", "evora", "freiburg", "ghent", "hobart", "izmir", "jena",
          "kyoto", "lyon", "malmo", "nantes", "oslo", "porto", "quebec", "riga", "sofia", "turin"]


def frame(command, stream, payload, version=1, flag=1):
    return HEADER.pack(version, 16, command, flag, stream, len(payload)) + payload


class Device:
    def __init__(self, number, rng):
        kind, firmware, self.ports = KINDS[number % len(KINDS)]
        self.id = f"{kind}-{PLACES[number // len(KINDS) % len(PLACES)]}"
        self.id += f"-{number // len(KINDS) // len(PLACES) + 1}" if number >= 80 else ""
        self.info = json.dumps({
            "deviceid": self.id, "mac": "02:00:00:%02x:%02x:%02x" % (number >> 16, number >> 8 & 255, number & 255),
            "ip": f"192.168.{number % 250}.1", "fwver": rng.choice(firmware), "prover": "2",
            "component": kind, "terminal": "none"}).encode()
        self.writers = []
        self.streams = {}  # by connection and id: the task that feeds it

    async def connect(self, port, version, address):
        reader, writer = await asyncio.open_connection(HOST, port, local_addr=(address, 0))
        writer.write(frame(INFO, 0, self.info, version))
        self.writers.append(writer)
        return reader, writer

    async def login(self, control, data, connections, address):
        reader, writer = await self.connect(control, 3, address)
        writer.write(b"".join(frame(PORT_INFO, 0, json.dumps({k: v}).encode()) for k, v in self.ports.items()))
        start(self.listen(reader, writer))
        for _ in range(connections):
            start(self.listen(*await self.connect(data, 2, address)))

    async def listen(self, reader, writer):
        try:
            while True:
                _, _, command, _, stream, length = HEADER.unpack(await reader.readexactly(16))
                await reader.readexactly(length)
                if command == DATA and (writer, stream) not in self.streams:
                    self.streams[writer, stream] = start(self.feed(writer, stream))
                elif command == CLOSE and (writer, stream) in self.streams:
                    self.streams.pop((writer, stream)).cancel()
        except (asyncio.IncompleteReadError, ConnectionError):
            pass

    async def feed(self, writer, stream):
        """An endless file at a rate that wanders."""
        head = b"HTTP/1.1 200 OK\r\nContent-Type: video/mp4\r\nContent-Length: 99000000000\r\n\r\n"
        writer.write(frame(DATA, stream, head, flag=0))
        rate = 10 ** random.uniform(3.5, 5.7)
        while True:
            rate = min(max(rate * random.uniform(0.6, 1.65), 2000), 900000)
            for _ in range(random.randint(4, 60)):
                if writer.is_closing():
                    return
                size = int(rate / 4)
                while size > 0:
                    writer.write(frame(DATA, stream, bytes(min(size, PIECE)), flag=0))
                    size -= PIECE
                await writer.drain()
                await asyncio.sleep(0.25)

    def leave(self):
        for writer in self.writers:
            writer.close()


TASKS = set()


def start(story):
    task = asyncio.create_task(story)
    TASKS.add(task)
    task.add_done_callback(TASKS.discard)
    return task


async def use(front, device, number):
    """A user who looks at something of the device for as long as it comes."""
    port = list(device.ports.values())[-1]
    while True:
        try:
            reader, writer = await asyncio.open_connection(
                HOST, front, local_addr=(f"127.0.1.{number % 200 + 1}", 0))
            writer.write(f"GET /{device.id}/{port}/films/{number:03}.mp4 HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n".encode())
            while await reader.read(1 << 16):
                pass
            writer.close()
        except ConnectionError:
            pass
        await asyncio.sleep(random.uniform(2, 8))


async def main(control, data, front, count, flows=12):
    rng = random.Random(7)
    devices = [Device(i, rng) for i in range(count)]
    for i, device in enumerate(devices):
        connections = 0 if i == 6 else 5 if count <= 100 else 1
        await device.login(control, data, connections, f"127.0.{2 + i // 250}.{i % 250 + 1}")
    await asyncio.sleep(2)
    for device in devices[4::9][: 40]:
        device.leave()
    here = [each for i, each in enumerate(devices) if i != 6 and (i % 9 != 4 or i > 360)]
    if count > 8:  # one id on two boxes, which take turns
        for i in range(3):
            await asyncio.sleep(0.3)
            await here[7].login(control, data, 5 if i == 2 else 0, f"127.0.9.{i % 2 + 1}")
    for number in range(flows):
        start(use(front, rng.choice(here[: max(flows, 6)]), number))
    print("up", flush=True)
    await asyncio.Event().wait()


if __name__ == "__main__":
    if len(sys.argv) not in (5, 6):
        sys.exit(__doc__)
    _, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    try:
        asyncio.run(main(*map(int, sys.argv[1:])))
    except KeyboardInterrupt:
        pass
