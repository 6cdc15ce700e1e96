"""The rows of the table, and the table itself."""

import dataclasses
import statistics

GWAD, GWAD7 = "gwad", "gwad -V 7"


@dataclasses.dataclass
class Row:
    key: str
    title: str
    unit: str = ""
    against: str = ""  # the peer that gwad is compared with
    wanted: str = ""
    of: str = ""  # the row of gwad's own that this one is compared with
    who: str = GWAD
    scale: float = 1


ROWS = [
    Row("download", "download, one stream", "MB/s", "ssh", ">= 1.2"),
    Row("download", "", "", "2 relays", ">= 0.9"),
    Row("upload", "upload, one stream", "MB/s", "ssh", ">= 1.3"),
    Row("download box", "box processor, download", "s/GB", "ssh", "<= 0.8"),
    Row("upload box", "box processor, upload", "s/GB", "ssh", "<= 0.9"),
    Row("download relay", "relay processor, download", "s/GB", "ssh"),
    Row("upload relay", "relay processor, upload", "s/GB", "ssh"),
    Row("1k p50", "1 KB, one user kept alive, p50", "us", "dropbear", "<= 1.1", scale=1000),
    Row("1k", "1 KB, 32 users kept alive", "/s", "dropbear", ">= 1.2"),
    Row("1k box", "box processor, such a request", "us", "dropbear", "<= 0.8"),
    Row("new", "1 KB, a new connection each, 8 users", "/s", "dropbear", ">= 1.5"),
    Row("100k", "100 KB, 8 users kept alive", "/s", "dropbear", ">= 8"),
    Row("100k p50", "100 KB, 8 users kept alive, p50", "ms", "", "<= 1.2 ms"),
    Row("beside p50", "1 KB beside a full-speed download, p50", "ms", "", "<= 0.4 ms"),
    Row("beside p99", "1 KB beside a full-speed download, p99", "ms", "", "<= 3 ms"),
    Row("beside nothing", "1 KB, one user alone", "/s"),
    Row("unread", "the same beside 8 unread downloads", "/s", "", "~ 1", of="beside nothing"),
    Row("streams 1", "one data connection, 1 download", "MB/s"),
    Row("streams 4", "one data connection, 4 downloads", "MB/s", "", ">= 0.9", of="streams 1"),
    Row("streams 16", "one data connection, 16 downloads", "MB/s", "", ">= 0.9", of="streams 1"),
    Row("streams 64", "one data connection, 64 downloads", "MB/s", "", ">= 0.9", of="streams 1"),
    Row("least of 64", "the slowest of 64, of its fair share", "", "", ">= 0.67"),
    Row("memory", "peak memory, everything but the next row", "MB", "dropbear", "<= 1"),
    Row("memory unread", "peak memory, with unread downloads", "MB", "dropbear"),
    Row("download", "level 7 with a log file: download", "MB/s", GWAD, ">= 0.5", who=GWAD7),
    Row("download box", "level 7, box processor, download", "s/GB", GWAD, "<= 2", who=GWAD7),
    Row("1k box", "level 7, box processor, 1 KB", "us", GWAD, "<= 2", who=GWAD7),
    Row("idle", "wake-ups a second, idle", "", "", "<= 7"),
    Row("size", "program for the box", "KB", "", "<= 100"),
]


class Figures:
    """What each run has measured, by row and peer."""

    def __init__(self):
        self.values = {}

    def add(self, peer, figures):
        for row, value in figures.items():
            self.values.setdefault(row, {}).setdefault(peer, []).append(value)

    def median(self, row, peer):
        values = self.values.get(row, {}).get(peer)
        return None if values is None else statistics.median(values)

    def errors(self):
        return {peer: int(sum(counts)) for peer, counts in self.values.get("errors", {}).items()
                if sum(counts)}


def number(value):
    """With three digits that mean something."""
    if value is None:
        return "-"
    if value >= 100:
        return f"{value:.0f}"
    return f"{value:.1f}" if value >= 10 else f"{value:.2f}"


def compared(figures, row):
    """How often gwad has what it is compared with, and what that is."""
    value = figures.median(row.key, row.who)
    other = figures.median(row.of or row.key, row.against or row.who)
    if not (row.of or row.against) or value is None or not other:
        return ""
    return f"{value / other:.2f} x {row.against or 'alone'}"


def lines(figures, peers):
    """The table's cells, the head first."""
    yield ["row", "unit", *peers, "gwad is", "wanted"]
    for row in ROWS:
        shown = peers if row.who == GWAD else [GWAD, GWAD7]
        values = {peer: figures.median(row.key, peer) for peer in shown}
        cells = ["" if not row.title or peer not in values or values[peer] is None
                 else number(values[peer] * row.scale) for peer in peers]
        yield [row.title, row.unit, *cells, compared(figures, row), row.wanted]


def text(cells):
    cells = list(cells)
    widths = [max(map(len, column)) for column in zip(*cells)]
    aligned = [[cell.ljust(width) if at in (0, len(widths) - 1) else cell.rjust(width)
                for at, (cell, width) in enumerate(zip(line, widths))] for line in cells]
    aligned.insert(1, ["-" * width for width in widths])
    return "\n".join("  ".join(line).rstrip() for line in aligned)
