"""A web service that takes uploads and throws them away: sink.py PORT.

The kernel drops the bytes by itself, so that the sink is nobody's bottleneck."""

import re
import socket
import socketserver
import sys

ANSWER = b"HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"
PIECE_BYTES = 1 << 20


class Sink(socketserver.BaseRequestHandler):
    def handle(self):
        """Requests until the user closes."""
        self.request.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        got = b""
        while True:
            while b"\r\n\r\n" not in got:
                if not (piece := self.request.recv(65536)):
                    return
                got += piece
            head, _, got = got.partition(b"\r\n\r\n")
            length = re.search(rb"(?i)\r\ncontent-length: *(\d+)", head)
            left = int(length[1]) if length else 0
            left, got = left - min(left, len(got)), got[left:]
            if not self.drop(left):
                return
            self.request.sendall(ANSWER)

    def drop(self, left):
        nothing = bytearray(PIECE_BYTES)
        while left > 0:
            dropped = self.request.recv_into(nothing, min(left, PIECE_BYTES), socket.MSG_TRUNC)
            if dropped == 0:
                return False
            left -= dropped
        return True


class Server(socketserver.ThreadingTCPServer):
    allow_reuse_address = True
    daemon_threads = True
    request_queue_size = 1024


if __name__ == "__main__":
    Server(("127.0.0.1", int(sys.argv[1])), Sink).serve_forever()
