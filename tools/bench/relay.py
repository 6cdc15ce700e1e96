"""The relay's side of the wire, played step by step: one data connection carries everything, whatever
gwrelay would do, and every load is the same each time."""

import socket
import struct
import threading
import time

from programs import Failure

HEADER = struct.Struct(">BBHIII")  # version, head size, command, flag, stream id, length
WORDS = struct.Struct(">IIII")
PAYLOAD_MAX = 8176
DATA_CONNECTIONS = 5
DATA, HEARTBEAT, CLOSE_STREAM, LOGIN_ANSWER, SESSION_ID = 1, 2, 4, 5, 8
LIMIT_S = 120
BUFFER_BYTES = 1 << 20


def frame(command, stream=0, payload=b"", version=1, flag=0):
    return HEADER.pack(version, HEADER.size, command, flag, stream, len(payload)) + payload


def read_exact(connection, size):
    data = b""
    while len(data) < size:
        if not (piece := connection.recv(size - len(data))):
            raise Failure("the daemon has closed a connection")
        data += piece
    return data


def read_frame(connection):
    _, _, command, _, stream, length = HEADER.unpack(read_exact(connection, HEADER.size))
    return command, stream, read_exact(connection, length)


def listener():
    server = socket.create_server(("127.0.0.1", 0))
    server.settimeout(LIMIT_S)
    return server


def accept(server):
    connection, _ = server.accept()
    connection.settimeout(LIMIT_S)
    connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    return connection


class Relay:
    def __init__(self):
        self.manager, self.control, self.data = listener(), listener(), listener()
        self.manager_port = self.manager.getsockname()[1]
        self.streams = 0

    def log_in(self, device):
        """Takes a daemon that has just been started through to its last data login."""
        self.device = device
        with accept(self.manager) as asking:
            while b"\r\n\r\n" not in asking.recv(4096):
                pass
            asking.sendall(b'HTTP/1.1 200 OK\r\n\r\n{"ret":0,"proxy":"127.0.0.1:%d"}'
                           % self.control.getsockname()[1])
        control = accept(self.control)
        read_frame(control)
        order = 'host1host2host3host4host5 "127.0.0.1" port1port2port3port4port5 "%d"'
        control.sendall(frame(LOGIN_ANSWER, 0, (order % self.data.getsockname()[1]).encode(), 2, 1))
        while read_frame(control)[0] != SESSION_ID:
            pass
        control.sendall(frame(SESSION_ID, 0, bytes(32), 1, 1))
        connections = [self.log_in_data() for _ in range(DATA_CONNECTIONS)]
        self.connection, self.incoming = connections[0], self.frames()
        for other in [control, *connections[1:]]:
            threading.Thread(target=answer_heartbeats, args=[other], daemon=True).start()

    def log_in_data(self):
        connection = accept(self.data)
        read_frame(connection)
        connection.sendall(frame(LOGIN_ANSWER, 0, b"", 1, 1))
        return connection

    # Streams, all of them on the first data connection.

    def open(self):
        """A stream id that is new. The first request on it opens the stream."""
        self.streams += 1
        return self.streams

    def request(self, stream, port, method, path, more="", headers=""):
        line = f"{method} {path}?x-qv-devid={self.device}&x-qv-port={port}{more} HTTP/1.1\r\n"
        self.connection.sendall(frame(DATA, stream,
                                      f"{line}Host: box\r\n{headers}\r\n".encode()))

    def send(self, stream, size):
        """So many bytes of a body, in full frames."""
        many = frame(DATA, stream, bytes(PAYLOAD_MAX)) * 64
        whole, rest = divmod(size, PAYLOAD_MAX)
        for _ in range(whole // 64):
            self.connection.sendall(many)
        self.connection.sendall(many[:whole % 64 * len(many) // 64]
                                + frame(DATA, stream, bytes(rest)))

    def frames(self):
        """Without end: the stream and the length of each data frame. Heartbeats are answered."""
        buffer, end = memoryview(bytearray(BUFFER_BYTES)), 0
        while True:
            if time.monotonic() > self.limit:
                raise Failure(f"what the daemon should have sent has not come within {LIMIT_S} s")
            if (size := self.connection.recv_into(buffer[end:])) == 0:
                raise Failure("the daemon has closed the data connection")
            self.connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_QUICKACK, 1)  # as gwrelay
            end += size
            start = 0
            while end - start >= WORDS.size:
                command, _, stream, length = WORDS.unpack_from(buffer, start)
                if end - start < WORDS.size + length:
                    break
                start += WORDS.size + length
                if command & 0xffff == DATA:
                    yield stream, length
                else:
                    self.connection.sendall(buffer[start - length - WORDS.size:start])
            buffer[:end - start] = buffer[start:end]
            end -= start

    def receive(self, wanted):
        """Until so many bytes have come; what each stream has got of them."""
        self.limit = time.monotonic() + LIMIT_S
        got = {}
        for stream, length in self.incoming:
            got[stream] = got.get(stream, 0) + length
            wanted -= length
            if wanted <= 0:
                return got

    def close(self, stream):
        self.connection.sendall(frame(CLOSE_STREAM, stream, b"", 1, 1))

    def echo(self):
        """Comes back when the daemon has done with everything before. What else comes is dropped."""
        self.limit = time.monotonic() + LIMIT_S
        self.request(echo := self.open(), 10010, "GET", "/", "&x-qv-gwad-opt=echo")
        for stream, _ in self.incoming:
            if stream == echo:
                return


def answer_heartbeats(connection):
    connection.settimeout(None)
    try:
        while True:
            command, _, payload = read_frame(connection)
            if command == HEARTBEAT:
                connection.sendall(frame(HEARTBEAT, 0, payload, 2, 1))
    except (Failure, OSError):
        pass  # the daemon has ended
