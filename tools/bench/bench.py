"""Measures the ways from a user to a box side by side: see scripts/bench, which calls this."""

import argparse
import os
import re
import subprocess
import sys
import time

import loads
import peers
import table
from programs import Failure, peak_kb
from relay import Relay

STREAMS = [1, 4, 16, 64]
PACKAGES = ["openssh-client", "dropbear-bin", "socat", "nginx-light", "wrk"]
BEGIN, END = "<!-- The next lines are written by scripts/bench --keep. -->\n", "<!-- End. -->\n"


def arguments():
    parser = argparse.ArgumentParser()
    parser.add_argument("--work", required=True, help="a folder for this run")
    parser.add_argument("--programs", required=True, help="the folder of gwad and gwrelay")
    parser.add_argument("--box-program", required=True, help="the box's gwad, stripped")
    parser.add_argument("--document", required=True, help="what --keep writes the table to")
    for name in ("quick", "each", "keep"):
        parser.add_argument(f"--{name}", action="store_true")
    return parser.parse_args()


class Progress:
    def __init__(self, each):
        self.start = time.monotonic()
        self.each = each

    def say(self, what):
        print(f"[{time.monotonic() - self.start:4.0f} s] {what}", file=sys.stderr, flush=True)

    def say_each(self, name, figures):
        if self.each:
            self.say(f"    {name:9} " + ", ".join(f"{row} {table.number(value)}"
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


class Bench:
    def __init__(self, options):
        self.options = options
        self.rounds, self.seconds = (3, 1) if options.quick else (7, 2)
        self.figures = table.Figures()
        self.progress = Progress(options.each)
        self.progress.say("starting everything")
        programs = os.path.abspath(options.programs)
        self.services, self.everyone = start_all(options.work, programs)
        self.level3 = [peer for peer in self.everyone if peer.name != table.GWAD7]
        self.gwad = [f"{programs}/gwad"]

    def add(self, peer, figures):
        self.figures.add(peer, figures)
        self.progress.say_each(peer, figures)

    def interleaved(self, those, rounds, load, argument):
        """A B C A B C: what disturbs the machine for a while disturbs all of them."""
        self.progress.say(load.__name__.replace("_", " "))
        for _ in range(rounds):
            for peer in those:
                self.add(peer.name, load(peer, argument))

    def idle(self):
        self.progress.say("idle")
        for name, value in loads.idle(self.everyone, 10 * self.seconds).items():
            self.add(name, {"idle": value})

    def one_connection(self):
        """With a relay that gives everything to one data connection, and a gwad of its own."""
        self.progress.say("one connection")
        relay = Relay()
        daemon = peers.gwad_start(self.options.work, self.gwad, "one", relay.manager_port, 3)
        relay.log_in("one")
        for _ in range(self.rounds):
            for streams in STREAMS:
                self.add(table.GWAD, loads.one_connection(relay, self.services.web_port, streams,
                                                          peers.SIZES["256m"]))
        daemon.terminate()

    def memory(self, row):
        for peer in self.everyone:
            if len(peer.box) == 1:  # two relays have a process for each connection
                self.add(peer.name, {row: peak_kb(peer.box[0]) / 1000})

    def measure(self):
        seconds = self.seconds
        self.idle()
        self.one_connection()
        for load in (loads.download, loads.upload):
            self.interleaved(self.everyone, self.rounds + 2, load, self.services)
        self.interleaved(self.everyone, self.rounds, loads.one_user, seconds)
        self.interleaved(self.everyone, self.rounds, loads.many_users, seconds)
        self.interleaved(self.level3, self.rounds, loads.new_connections, seconds)
        self.interleaved(self.level3, self.rounds, loads.pages, seconds)
        self.interleaved(self.level3, self.rounds, loads.beside_download, 2 * seconds)
        self.memory("memory")
        self.interleaved(self.level3, self.rounds - 1, loads.beside_unread, seconds)
        self.memory("memory unread")
        self.add(table.GWAD, {"size": os.path.getsize(self.options.box_program) / 1024})
        self.progress.say("done")

    def report(self):
        names = [peer.name for peer in self.everyone]
        errors = [f"{peer} {count}" for peer, count in self.figures.errors().items()]
        notes = ["", "Failed requests: " + ", ".join(errors)] if errors else []
        return "\n".join([table.text(table.lines(self.figures, names)), *notes])


def output(*command):
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout


def circumstances():
    with open("/proc/cpuinfo") as file:
        model = (re.search(r"^(?:model name|cpu model)\s*: (.*)", file.read(), re.M)
                 or ["", "unknown processor"])[1]
    versions = output("dpkg-query", "-W", "-f", "${Package} ${Version}, ", *PACKAGES).rstrip(", ")
    return "\n".join([
        f"{time.strftime('%Y-%m-%d')}, commit {output('git', 'describe', '--always', '--dirty').strip()}"
        f", {os.cpu_count()} x {model}, Linux {os.uname().release}",
        versions.replace(", wrk", ",\nwrk") if len(versions) > 100 else versions,
        f"load average before the run: {os.getloadavg()[0]:.1f}"])


def keep(path, report):
    with open(path) as file:
        before, _, rest = file.read().partition(BEGIN)
    after = rest.partition(END)[2]
    block = "".join(f"    {line}".rstrip() + "\n" for line in report.split("\n"))
    with open(path, "w") as file:
        file.write(f"{before}{BEGIN}\n{block}\n{END}{after}")


def main():
    options = arguments()
    beginning = circumstances()
    bench = Bench(options)
    bench.measure()
    report = f"{beginning}\n\n{bench.report()}"
    print(report)
    if options.keep:
        keep(options.document, report)


if __name__ == "__main__":
    try:
        main()
    except Failure as failure:
        sys.exit(f"bench: {failure}")
