#!/usr/bin/env python3
"""Takes pictures of a gwrelay's page: pictures.py FRONT_PORT FOLDER SECONDS NAME...

Opens the page in all ways that are named (light, dark, phone, many, empty), waits so long for its
graphs to fill, and writes FOLDER/relay-NAME.png.
"""

import os
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "../../tests/relay/browser"))
from chromium import Chromium  # noqa: E402

WAYS = {
    "light": {"width": 1200, "height": 760},
    "dark": {"width": 1200, "height": 900, "dark": True},
    "phone": {"width": 390, "height": 844, "phone": True, "scale": 1.5},
    "many": {"width": 1200, "height": 640},
    "empty": {"width": 1200, "height": 480},
}


def prepare(name, page):
    if name == "empty":
        page.wait("document.getElementById('empty').checkVisibility()")
        return
    page.wait("document.querySelectorAll('.row').length > 0")
    if name == "many":
        page.run("document.getElementById('search').focus()")
        page.type("5.2 riga")
    if name == "dark":
        busiest = "[...devices.values()].sort((a, b) => b.streams - a.streams || ORDERS.name(a, b))[0].id"
        page.wait("[...devices.values()].some((each) => each.streams > 1)")
        page.run(f"deviceShow({busiest}); document.activeElement.blur()")
        page.wait("document.querySelector('.detail tbody tr')")


def main(front, folder, seconds, names):
    with Chromium() as browser:
        pages = {name: browser.page(f"http://127.0.0.1:{front}/", **WAYS[name]) for name in names}
        time.sleep(seconds)
        for name, page in pages.items():
            page.call("Page.bringToFront")
            prepare(name, page)
            time.sleep(2)
            page.picture(f"{folder}/relay-{name}.png")
        complaints = browser.complaints()
        if complaints:
            sys.exit("\n".join(complaints))


if __name__ == "__main__":
    if len(sys.argv) < 5:
        sys.exit(__doc__)
    main(sys.argv[1], sys.argv[2], float(sys.argv[3]), sys.argv[4:])
