"""Meters of instructions: each runs the daemon and tells which functions have executed how many
between two marks. A mark is an echo that has come back, so that nothing is left to be done for what
was before; everything the daemon does is counted, in all its threads."""

import bisect
import collections
import os
import re
import subprocess
import time

from programs import Failure

QUIET_S = 0.05
# One variant of the C library's functions on every machine, or the figures would differ.
TUNABLES = {"GLIBC_TUNABLES": "glibc.cpu.hwcaps=-AVX512F,-AVX512VL,-AVX2,-AVX,-AVX_Fast_Unaligned_Load,-ERMS,-FSRM"}


class Callgrind:
    """For this machine's own processor. The daemon's answer to an echo begins a part of its file."""

    name = "x86-64"
    ANSWER = "gwa_self_debug*"

    def __init__(self, work, program):
        self.out = f"{work}/callgrind"
        self.command = ["valgrind", "--tool=callgrind", f"--callgrind-out-file={self.out}",
                        f"--dump-before={self.ANSWER}", "--compress-strings=no",
                        "--compress-pos=no", program]
        self.environment = TUNABLES

    def started(self, daemon):
        pass

    def mark(self):
        pass

    def parts(self, marks):
        """After the daemon's end: instructions by function, between each mark and the next."""
        return [self.part(f"{self.out}.{number}") for number in range(2, marks + 1)]

    @staticmethod
    def part(path):
        if not os.path.exists(path):
            raise Failure("callgrind has not seen the daemon's answer to an echo: "
                          f"where is {Callgrind.ANSWER}?")
        counts, function, is_call = collections.Counter(), "", False
        with open(path) as file:
            for line in file:
                if line.startswith("fn="):
                    function = line[3:].strip()
                elif line.startswith("calls="):
                    is_call = True  # the next line has what the other function has cost
                elif line[:1].isdigit():
                    if not is_call:
                        counts[function] += int(line.split()[1])
                    is_call = False
        return counts


class Qemu:
    """For the box's processor. The emulator logs each block of code when it first sees it, and its
    address whenever it is executed."""

    name = "mipsel"
    SYSTEM = "/usr/mipsel-linux-gnu"
    BASE = 0x10000000  # where this machine has the other one's address 0

    def __init__(self, work, program):
        self.log, self.program = f"{work}/qemu.log", program
        self.command = ["qemu-mipsel", "-L", self.SYSTEM, "-B", hex(self.BASE), "-d",
                        "in_asm,exec,nochain", "-D", self.log, program]
        self.environment = {}
        self.marks, self.libraries = [], []

    def mark(self):
        """Where the log ends when the daemon has come to rest."""
        size, before = os.path.getsize(self.log), -1
        while size != before:
            time.sleep(QUIET_S)
            size, before = os.path.getsize(self.log), size
        self.marks.append(size)

    def started(self, daemon):
        """Finds out where its libraries are."""
        with open(f"/proc/{daemon.pid}/maps") as file:
            for line in file:
                found = re.match(rf"(\w+)-\w+ \S+ 00000000 .* ({self.SYSTEM}/\S+)", line)
                if found:
                    self.libraries.append((int(found[1], 16) - self.BASE, found[2]))

    def parts(self, marks):
        blocks, parts = {}, []
        with open(self.log, "rb") as file:
            for begin, end in zip([0, *self.marks], self.marks):
                parts.append(executed(file.read(end - begin), blocks))
        name = self.names()
        return [named(part, blocks, name) for part in parts[1:marks]]

    def names(self):
        """A function from an address to a name. The libraries tell only what they export."""
        begins = {}
        for base, path in [(0, self.program), *self.libraries]:
            table = subprocess.run(
                ["mipsel-linux-gnu-nm", "-CS", *(["-D"] if base else []), path],
                capture_output=True, text=True, check=True).stdout
            symbols = [(base + int(address, 16), int(size, 16), symbol) for address, size, symbol in
                       re.findall(r"^(\w+) (\w+) [tTwWiV] ([^@\n]*)", table, re.M)]
            others = f"others of {os.path.basename(path)}"
            begins |= {base: others} | {at + size: others for at, size, _ in symbols}
            begins |= {at: symbol for at, _, symbol in symbols}
        addresses = sorted(begins)
        return lambda address: begins[addresses[bisect.bisect_right(addresses, address) - 1]]


def executed(log, blocks):
    """How often each block was executed; `blocks` learns how many instructions a new one has."""
    for code in re.findall(rb"^IN: .*\n((?:0x.*\n)+)", log, re.M):
        blocks[int(code[2:10], 16)] = code.count(b"\n")
    return collections.Counter(re.findall(rb"^Trace \d+: \w+ \[\w+/(\w+)", log, re.M))


def named(part, blocks, name):
    counts = collections.Counter()
    for address, times in part.items():
        counts[name(int(address, 16))] += times * blocks[int(address, 16)]
    return counts
