#!/usr/bin/env python3
"""The relay's page as its users have it: page_test.py GWRELAY DEVICES.PY, with Chromium."""

import json
import socket
import struct
import subprocess
import sys
import unittest

from chromium import Chromium

COUNT = 24
HOSTILE = "<img src=x onerror=document.title='taken'>"


class Relay:
    """The program on free ports, or on those of one that has been there before."""

    def __init__(self, program, front=0):
        self.process = subprocess.Popen(
            [program, "-q", "--no-dead-port-guard", "--config=/dev/null", "--drain=0", "--manager-port=0", "--control-port=0",
             "--data-port=0", f"--front-port={front}"],
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        words = dict(word.split("=") for word in self.process.stdout.readline().split()[1:])
        self.control, self.data, self.front = (int(words[name]) for name in ("control", "data", "front"))

    def stop(self):
        self.process.terminate()
        self.process.wait(10)
        self.process.stdout.close()


def row_of(name):
    return f"[...document.querySelectorAll('.row')].find((row) => row.querySelector('button').textContent == {json.dumps(name)})"


class PageTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.relay = Relay(sys.argv[1])
        ports = [str(port) for port in (cls.relay.control, cls.relay.data, cls.relay.front)]
        cls.devices = subprocess.Popen([sys.executable, sys.argv[2], *ports, str(COUNT)], stdout=subprocess.PIPE)
        cls.devices.stdout.readline()
        cls.browser = Chromium()
        cls.browser.__enter__()

    @classmethod
    def tearDownClass(cls):
        cls.browser.__exit__()
        cls.devices.terminate()
        cls.devices.wait(10)
        cls.devices.stdout.close()
        cls.relay.stop()

    def setUp(self):
        self.page = self.browser.page(f"http://127.0.0.1:{self.relay.front}/")
        self.rows(f">= {COUNT}")

    def tearDown(self):
        self.page.close()
        self.assertEqual(self.browser.complaints(), [])

    def rows(self, condition):
        self.page.wait(f"document.querySelectorAll('.row').length {condition}")

    def test_finds_and_sorts(self):
        self.page.press("/", 191)
        self.page.type("1.8 CORK")
        self.rows("== 1")
        self.assertEqual(self.page.run("document.querySelector('.row button').textContent"), "camera-cork")
        self.assertRegex(self.page.run("document.getElementById('count').textContent"), r"^1 of \d+ devices$")
        self.assertRegex(self.page.run("document.querySelector('.open a').href"),
                         rf"^http://camera-cork--\d+\.localhost:{self.relay.front}/$")
        self.page.type("x")
        self.page.wait("document.getElementById('none').checkVisibility()")
        self.page.press("Escape", 27)
        self.rows(f">= {COUNT}")
        self.page.click("[data-order=streams] button")
        self.page.wait("document.querySelector('[data-order=streams]').ariaSort == 'descending'")
        numbers = [int(each or 0) for each in self.page.run("[...document.querySelectorAll('td.streams')].map((each) => each.textContent)")]
        self.assertGreater(numbers[0], numbers[-1])
        self.page.click("[data-which=away]")
        self.page.wait("[...document.querySelectorAll('.row')].every((row) => row.matches('.away'))")

    def test_closes_a_stream_of_an_unfolded_device(self):
        self.page.wait("Number(document.querySelector('.row .streams').textContent) > 0")  # the first has users
        self.page.click(".row .who button")
        self.page.wait("document.querySelector('.detail [aria-label^=Close]')")
        self.page.run("document.querySelector('.detail tbody tr').classList.add('doomed')")
        user = self.page.run("document.querySelector('.doomed td').textContent")
        self.page.click(".doomed button")
        self.page.wait("!document.querySelector('.doomed')")
        self.page.wait(f"document.querySelector('.events').textContent.includes('closed{user}: GET /')")
        self.assertIn("#device=camera-amsterdam", self.page.run("location.hash"))
        self.page.click(".row .who button")
        self.page.wait("!document.querySelector('.detail') && !location.hash")

    def test_shows_what_a_device_says_as_text(self):
        information = json.dumps({"deviceid": HOSTILE, "fwver": HOSTILE, HOSTILE: HOSTILE}).encode()
        with socket.create_connection(("127.0.0.1", self.relay.control)) as device:
            for command, version, payload in ((3, 3, information), (12, 1, json.dumps({HOSTILE: 80}).encode())):
                device.sendall(struct.pack(">BBHIII", version, 16, command, 1, 0, len(payload)) + payload)
            self.page.wait(row_of(HOSTILE) + "?.querySelector('.open a')")
            self.page.run(row_of(HOSTILE) + ".querySelector('button').click()")
            self.page.wait("document.querySelector('.detail dd')")
            self.assertEqual(self.page.run("document.querySelectorAll('main img').length"), 0)
            self.assertNotEqual(self.page.run("document.title"), "taken")
            self.assertEqual(self.page.run(row_of(HOSTILE) + ".querySelector('.open a').getAttribute('href')"),
                             "/%3Cimg%20src%3Dx%20onerror%3Ddocument.title%3D%27taken%27%3E/80/")

    def test_tells_of_the_certificate_in_time(self):
        for days, shown in ((13, True), (15, False)):
            self.assertEqual(self.page.run(
                f"whole.certificate_ends = Date.now() / 1000 + {days} * 86400, showAlerts(), "
                "document.getElementById('alerts').textContent.includes('certificate ends on')"), shown)

    def test_z_comes_back_with_the_relay(self):
        self.relay.stop()
        self.page.wait("document.getElementById('live').dataset.state == 'lost'")
        type(self).relay = Relay(sys.argv[1], self.relay.front)
        self.page.wait("document.getElementById('live').dataset.state == 'live'")
        self.page.wait("document.getElementById('empty').checkVisibility()")
        self.assertIn("gwad -r localhost -p", self.page.run("document.getElementById('command').textContent"))
        self.browser.complaints()  # of the time without a relay


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
