"""The rows of the table, and the table itself."""

import dataclasses
import statistics

GWAD, GWAD7 = "gwad", "gwad -V 7"


@dataclasses.dataclass
class Row:
    key: str
    title: str
    unit: str
    against: str = ""  # the peer that gwad is compared with
    wanted: str = ""


ROWS = [
    Row("download", "download, one stream", "MB/s", "ssh", ">= 1.2"),
    Row("download", "", "", "2 relays", ">= 0.9"),
    Row("upload", "upload, one stream", "MB/s", "ssh", ">= 1.3"),
    Row("download box", "box processor, download", "s/GB", "ssh", "<= 0.8"),
    Row("upload box", "box processor, upload", "s/GB", "ssh", "<= 0.9"),
    Row("download relay", "relay processor, download", "s/GB", "ssh"),
    Row("upload relay", "relay processor, upload", "s/GB", "ssh"),
    Row("1k p50", "1 KB, one user kept alive, p50", "ms", "dropbear", "<= 1.1"),
    Row("1k", "1 KB, 32 users kept alive", "/s", "dropbear", ">= 1.2"),
    Row("1k box", "box processor, such a request", "us", "dropbear", "<= 0.8"),
    Row("new", "1 KB, a new connection each, 8 users", "/s", "dropbear", ">= 1.5"),
    Row("100k", "100 KB, 8 users kept alive", "/s", "dropbear", ">= 8"),
    Row("100k p50", "100 KB, 8 users kept alive, p50", "ms", "", "<= 1.2 ms"),
    Row("beside p50", "1 KB beside a full-speed download, p50", "ms", "", "<= 0.4 ms"),
    Row("beside p99", "1 KB beside a full-speed download, p99", "ms", "", "<= 3 ms"),
    Row("unread", "1 KB beside 8 unread downloads", "/s", "", "as without"),
    Row("memory", "peak memory, all of the above but the last", "MB", "dropbear", "<= 1"),
    Row("memory unread", "peak memory, all of the above", "MB", "dropbear"),
    Row("idle", "wake-ups a second, idle", "", "", "<= 7"),
]


class Figures:
    """figures[row][peer]: what each run has measured."""

    def __init__(self):
        self.values = {}

    def add(self, peer, figures):
        for row, value in figures.items():
            self.values.setdefault(row, {}).setdefault(peer, []).append(value)

    def median(self, row, peer):
        values = self.values.get(row, {}).get(peer)
        return None if values is None else statistics.median(values)


def number(value):
    """With three digits that mean something."""
    if value is None:
        return "-"
    if value >= 100:
        return f"{value:.0f}"
    return f"{value:.1f}" if value >= 10 else f"{value:.2f}"


def ratio(value, other):
    return "-" if not value or not other else f"{value / other:.2f} x"


def lines(figures, peers):
    """The table's cells, the head first."""
    yield ["row", "unit", *peers, "gwad is", "wanted"]
    for row in ROWS:
        values = {peer: figures.median(row.key, peer) for peer in peers}
        cells = [number(value) for value in values.values()] if row.title else [""] * len(peers)
        compared = f"{ratio(values[GWAD], values[row.against])} {row.against}" if row.against else ""
        yield [row.title, row.unit, *cells, compared, row.wanted]
    level7 = [ratio(figures.median(key, GWAD7), figures.median(key, GWAD))
              for key in ("download box", "upload box", "1k box")]
    yield ["level 7, log file: processor per GB, per request", "",
           *[""] * len(peers), f"{level7[0]} {level7[1]} {level7[2]}".replace(" x", ""),
           "<= 2 x level 3"]


def text(cells):
    cells = list(cells)
    widths = [max(map(len, column)) for column in zip(*cells)]
    aligned = [[cell.ljust(width) if at in (0, len(widths) - 1) else cell.rjust(width)
                for at, (cell, width) in enumerate(zip(line, widths))] for line in cells]
    aligned.insert(1, ["-" * width for width in widths])
    return "\n".join("  ".join(line).rstrip() for line in aligned)
