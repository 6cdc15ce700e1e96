"""The box's local service: bytes that tell their place, so that whoever reads them sees what is wrong.

GET /N answers with the first N bytes of the pattern; POST compares the body with it, and answers with
how many bytes were right.
"""

import http.server
import struct
import sys

PIECE = 65536


def pattern(start, size):
    """The bytes from `start` on: each four of them are the number of these four."""
    first = start // 4
    words = (start + size + 3) // 4 - first
    text = struct.pack(f">{words}I", *(n & 0xFFFFFFFF for n in range(first, first + words)))
    return text[start % 4:][:size]


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def begin(self, length):
        self.send_response(200)
        self.send_header("Content-Length", str(length))
        self.end_headers()

    def do_GET(self):
        length = int(self.path.partition("?")[0].strip("/"))
        self.begin(length)
        for start in range(0, length, PIECE):
            self.wfile.write(pattern(start, min(PIECE, length - start)))

    def do_POST(self):
        length, right = int(self.headers["Content-Length"]), 0
        while right < length:
            piece = self.rfile.read(min(PIECE, length - right))
            if not piece or piece != pattern(right, len(piece)):
                break
            right += len(piece)
        text = str(right).encode()
        self.begin(len(text))
        self.wfile.write(text)

    def log_message(self, *_):
        pass


if __name__ == "__main__":
    server = http.server.ThreadingHTTPServer(("127.0.0.1", int(sys.argv[1])), Handler)
    server.serve_forever()
