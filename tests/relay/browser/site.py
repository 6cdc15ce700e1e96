"""The site behind the box: what web applications ask of a browser, each in its plainest form. Standard
output tells its port."""
import base64
import hashlib
import http.server
import time

BIG = 64 << 20
BLOCK = bytes(range(256)) * 256
PAGE = b"""<!DOCTYPE html><title>loading</title><link rel="stylesheet" href="/style.css">
<p id="text">text</p><script src="/app.js"></script>"""
PLAIN_PAGE = b"<!DOCTYPE html><title>plain</title><p>text</p>"


class Site(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *_):
        pass

    def answer(self, code, body=b"", kind="text/html", **fields):
        self.send_response(code)
        for name, value in {"Content-Type": kind, "Content-Length": str(len(body)), **fields}.items():
            self.send_header(name.replace("_", "-"), value)
        self.end_headers()
        if self.command != "HEAD":
            self.wfile.write(body)

    def authority(self):
        return self.headers["Host"]

    def do_HEAD(self):
        self.answer(200)

    def do_GET(self):
        name = self.path.partition("?")[0].strip("/").replace(".", "_")
        handler = getattr(self, "get_" + name, None)
        handler() if handler else self.answer(404)

    def get_(self):  # an absolute place, and a cookie for all of the site
        self.answer(302, Location=f"http://{self.authority()}/home", Set_Cookie="seen=yes; Path=/")

    def get_plain(self):
        self.answer(302, Location="/plain_home", Set_Cookie="seen=yes; Path=/; Domain=localhost")

    def get_plain_home(self):
        self.answer(200, PLAIN_PAGE)

    def get_home(self):
        self.answer(200, PAGE)

    def get_style_css(self):
        self.answer(200, b"#text { color: rgb(1, 2, 3) }", "text/css")

    def get_app_js(self):
        with open(__file__.replace("site.py", "app.js"), "rb") as script:
            self.answer(200, script.read(), "text/javascript")

    def get_who(self):
        told = [self.headers.get(name, "") for name in ("Cookie", "X-Forwarded-Host", "X-Forwarded-For")]
        self.answer(200, "|".join(told).encode())

    def get_events(self):
        self.send_response(200)
        self.send_header("Content-Type", "text/event-stream")
        self.end_headers()
        for number in range(3):
            self.wfile.write(b"data: %d\n\n" % number)
            time.sleep(0.3)
        self.close_connection = True

    def get_big(self):
        self.send_response(200)
        self.send_header("Content-Length", str(BIG))
        self.end_headers()
        for _ in range(BIG // len(BLOCK)):
            self.wfile.write(BLOCK)

    def upload(self):
        left, total = int(self.headers["Content-Length"]), hashlib.sha256()
        while left > 0:
            part = self.rfile.read(min(left, 1 << 16))
            left -= len(part)
            total.update(part)
        self.answer(200, f"{self.command} {self.path} {total.hexdigest()}".encode())

    do_POST = do_PUT = do_DELETE = upload

    def get_ws(self):
        """Echoes texts of less than 126 bytes, and leaves when the browser does."""
        if self.headers["Origin"] != "http://" + self.authority():
            return self.answer(403)
        key = self.headers["Sec-WebSocket-Key"] + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11"
        accept = base64.b64encode(hashlib.sha1(key.encode()).digest()).decode()
        self.send_response(101)
        for name, value in {"Connection": "Upgrade", "Upgrade": "websocket",
                            "Sec-WebSocket-Accept": accept}.items():
            self.send_header(name, value)
        self.end_headers()
        opcode = 0
        while opcode != 8:
            opcode, size = self.rfile.read(1)[0] & 15, self.rfile.read(1)[0] & 127
            mask = self.rfile.read(4)
            text = bytes(byte ^ mask[i % 4] for i, byte in enumerate(self.rfile.read(size)))
            self.wfile.write(bytes([0x80 | opcode, size]) + text)
        time.sleep(300)  # it is not the service that ends the connection
        self.close_connection = True
        return None


if __name__ == "__main__":
    http.server.ThreadingHTTPServer.daemon_threads = True
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Site)
    print(server.server_address[1], flush=True)
    server.serve_forever()
