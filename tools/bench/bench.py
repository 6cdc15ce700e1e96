"""Measures the ways from a user to a box side by side: see scripts/bench, which calls this."""

import argparse
import os
import sys
import time

import loads
import peers
import table
from programs import Failure, peak_kb


def arguments():
    parser = argparse.ArgumentParser()
    parser.add_argument("--work", required=True, help="a folder for this run")
    parser.add_argument("--programs", required=True, help="the folder of gwad and gwrelay")
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--each", action="store_true")
    return parser.parse_args()


class Progress:
    def __init__(self, each):
        self.start = time.monotonic()
        self.each = each

    def say(self, what):
        print(f"[{time.monotonic() - self.start:4.0f} s] {what}", file=sys.stderr, flush=True)

    def say_each(self, peer, figures):
        if self.each:
            self.say(f"{peer.name:10} " + ", ".join(f"{row} {table.number(value)}"
                                                    for row, value in figures.items()))


def start_all(work, programs):
    services = peers.Services(work)
    server = peers.SshServer(work)
    return services, [
        peers.direct(work, services),
        peers.relays(work, services),
        peers.ssh(server, services),
        peers.dropbear(server, services),
        peers.gwad(work, services, programs, 3, table.GWAD),
        peers.gwad(work, services, programs, 7, table.GWAD7),
    ]


def interleaved(figures, progress, everyone, rounds, load, argument):
    """A B C A B C: what disturbs the machine for a while disturbs all of them."""
    progress.say(load.__name__.replace("_", " "))
    for _ in range(rounds):
        for peer in everyone:
            got = load(peer, argument)
            figures.add(peer.name, got)
            progress.say_each(peer, got)


def measure(everyone, services, quick, progress):
    figures = table.Figures()
    rounds, seconds = (3, 1) if quick else (7, 2)
    progress.say("idle")
    for name, value in loads.idle(everyone, 10).items():
        figures.add(name, {"idle": value})
    for load in (loads.download, loads.upload):
        interleaved(figures, progress, everyone, rounds + 2, load, services)
    level3 = [peer for peer in everyone if peer.name != table.GWAD7]
    for load, those, times in ((loads.one_user, everyone, 1), (loads.many_users, everyone, 1),
                               (loads.new_connections, level3, 1), (loads.pages, level3, 1),
                               (loads.beside_download, level3, 2)):
        interleaved(figures, progress, those, rounds, load, seconds * times)
    memory(figures, "memory", everyone)
    interleaved(figures, progress, level3, rounds - 1, loads.beside_unread, seconds)
    memory(figures, "memory unread", everyone)
    return figures


def memory(figures, row, everyone):
    for peer in everyone:
        if len(peer.box) == 1:  # two relays have a process for each connection
            figures.add(peer.name, {row: peak_kb(peer.box[0]) / 1000})


def main():
    options = arguments()
    progress = Progress(options.each)
    progress.say("starting everything")
    services, everyone = start_all(options.work, os.path.abspath(options.programs))
    figures = measure(everyone, services, options.quick, progress)
    progress.say("done")
    print(table.text(table.lines(figures, [peer.name for peer in everyone])))


if __name__ == "__main__":
    try:
        main()
    except Failure as failure:
        sys.exit(f"bench: {failure}")
