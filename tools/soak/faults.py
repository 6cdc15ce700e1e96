"""What goes wrong, and how long it takes until users are served again."""

import asyncio
import contextlib
import fcntl
import math
import os
import signal
import struct

from rogue import Rogue

INIT_SCRIPT = "/etc/init.d/gwadsh"
HOLE, HOLE_TABLE = "hole0", 50
TUNSETIFF, IFF_TUN, IFF_NO_PI = 0x400454ca, 0x0001, 0x1000
SEND_BUFFER = "4096 16384 262144"
NOTICED_S = 15           # for the daemon to see that its network has changed
GIVE_UP_S = 60           # the most that a connection stays on which nothing is acknowledged
PROBE_S, PROBE_PAUSE_S, PROBE_BYTES = 2, 0.1, 1000
WHOLE_S = 30             # from the first byte to the last data connection


class Faults:
    # A fault, how often it comes, and the stated time from its end to the next relayed byte: the
    # daemon pauses for 2 s at a restart and for 10 s after it has found nobody.
    KINDS = {"relay killed": (2, 20), "relay told to end": (1, 20), "relay stopped": (1, 10),
             "link silent for seconds": (2, 25), "link silent for long": (1, 75),
             "new address": (1, 15), "link changed": (1, 15), "daemon killed": (2, 15),
             "daemon told to end": (1, 15), "daemon stopped": (1, 10), "relay gone mad": (2, 35)}
    LONG = "link silent for long"

    def __init__(self, run, only):
        self.run, self.programs, self.random = run, run.programs, run.random
        self.only = only
        self.periods = []   # of all faults: from when until when users may have been cut off
        self.silences = []  # the long ones: until when connections may stand still
        self.active = False
        self.figures = {}   # by kind: each time in s from the fault, and from its end
        self.deck = []

    async def prepare(self):
        # With what loopback has otherwise, hardly anything would ever have to wait.
        with contextlib.suppress(OSError), open("/proc/sys/net/ipv4/tcp_wmem", "w") as file:
            file.write(SEND_BUFFER)
        """The relay has an address whose way may end in a hole: packets vanish and nobody is told.
        In place of the box's start scripts there is an empty folder."""
        for command in (f"ip address add {self.run.address}/32 dev lo", *self.make_hole(),
                        "ip rule add pref 100 lookup local", "ip rule del pref 0",
                        "mount -t tmpfs tmpfs /etc/init.d"):
            await self.programs.command(command)

    def make_hole(self):
        """Packets to a device that nobody reads are gone. Where there are no such devices, the kernel
        throws them away, but tells those who connect at once."""
        try:
            self.hole = os.open("/dev/net/tun", os.O_RDWR)
            fcntl.ioctl(self.hole, TUNSETIFF,
                        struct.pack("16sH22x", HOLE.encode(), IFF_TUN | IFF_NO_PI))
        except OSError:
            return [f"ip route add blackhole default table {HOLE_TABLE}"]
        return [f"ip link set {HOLE} up", f"ip route add default dev {HOLE} table {HOLE_TABLE}"]

    def disturbed(self, since):
        """Whether a fault explains what has happened since then."""
        return self.active or any(until >= since for _, until in self.periods)

    def was_silent(self, since):
        """Whether the link has been silent for long since then."""
        return self.silences and self.silences[-1] >= since

    def next_kind(self):
        if self.only:
            return self.only
        if not self.deck:
            self.deck = [kind for kind, (times, _) in self.KINDS.items() for _ in range(times)
                         if kind != self.LONG or self.run.seconds >= 180]
            self.random.shuffle(self.deck)
        return self.deck.pop()

    async def strike(self):
        kind = self.next_kind()
        began, self.active = self.run.now(), True
        what, mended = await getattr(self, kind.replace(" ", "_"))(kind)
        limit_s = self.KINDS[kind][1] * self.run.patience
        served = await self.until(self.serves, mended + limit_s)
        whole = served and await self.until(self.run.is_whole,
                                            self.run.now() + WHOLE_S * self.run.patience)
        now = self.run.now()
        self.periods.append((began, now))
        self.active = False
        if not whole:
            self.run.fail(f"{kind}: {what}, and "
                          + (f"nothing is relayed within {limit_s:.0f} s" if not served else
                             "its data connections do not come back"))
            return
        self.figures.setdefault(kind, []).append((served - began, max(served - mended, 0)))
        self.run.say(f"{kind}: {what}; served after {served - began:.1f} s, "
                     f"whole after {now - began:.1f} s")

    async def until(self, question, limit):
        """When the answer was yes, or 0."""
        while not await question():
            if self.run.now() > limit or self.run.failed:
                return 0
            await asyncio.sleep(PROBE_PAUSE_S)
        return self.run.now()

    async def serves(self):
        """A new user's request, answered rightly."""
        with contextlib.suppress(OSError, EOFError, TimeoutError):
            async with asyncio.timeout(PROBE_S):
                return await self.run.probe(PROBE_BYTES)
        return False

    # Each tells what it has done, and when it was over.

    async def relay_back(self, number):
        await self.programs.stop("gwrelay", number)
        away_s = self.random.choice([0, self.random.random() * 5])
        await asyncio.sleep(away_s)
        await self.programs.start_relay()
        return f"back after {away_s:.1f} s", self.run.now()

    async def relay_killed(self, _):
        return await self.relay_back(signal.SIGKILL)

    async def relay_told_to_end(self, _):
        return await self.relay_back(signal.SIGTERM)

    async def stopped(self, name):
        seconds = 0.2 + self.random.random() * 5
        self.programs.send(name, signal.SIGSTOP)
        await asyncio.sleep(seconds)
        self.programs.send(name, signal.SIGCONT)
        return f"for {seconds:.1f} s", self.run.now()

    async def relay_stopped(self, _):
        return await self.stopped("gwrelay")

    async def daemon_stopped(self, _):
        return await self.stopped("gwad")

    async def silent(self, seconds):
        into_the_hole = f"pref 50 to {self.run.address} lookup {HOLE_TABLE}"
        await self.programs.command(f"ip rule add {into_the_hole}")
        await asyncio.sleep(seconds)
        await self.programs.command("ip rule del pref 50")
        return f"for {seconds:.1f} s", self.run.now()

    async def link_silent_for_seconds(self, _):
        return await self.silent(0.5 + self.random.random() * 10)

    async def link_silent_for_long(self, _):
        """Each connection goes on or gives up in its own time, long after the first that does."""
        seconds = 40 + self.random.random() * 40
        self.silences.append(math.inf)
        told = await self.silent(seconds)
        self.silences[-1] = self.run.now() + max(seconds, GIVE_UP_S)
        self.periods.append((0, self.silences[-1]))
        return told

    async def noticed(self, *commands):
        """The daemon restarts by itself, through an init script or without one."""
        began, pid = self.run.now(), self.programs.pid["gwad"]
        has_script = self.random.random() < 0.5
        if has_script:
            command = " ".join(self.programs.gwad_command())
            with open(INIT_SCRIPT, "w") as file:
                file.write(f"#!/bin/sh\necho $1 >>{self.run.work}/init\nexec {command}\n")
            os.chmod(INIT_SCRIPT, 0o755)
        for command in commands:
            await self.programs.command(command)
        if pid is None or not await self.programs.gone(pid, NOTICED_S * self.run.patience):
            self.run.fail(f"the daemon does not notice: {commands[0]}")
        await asyncio.sleep(PROBE_PAUSE_S)
        return "by its script" if has_script else "by itself", began

    async def new_address(self, _):
        extra = f"10.98.{self.random.randrange(256)}.{self.random.randrange(256)}/32 dev lo"
        return await self.noticed(f"ip address replace {extra}", f"ip address del {extra}")

    async def link_changed(self, _):
        mtu = self.random.choice([65535, 60000, 50000, 40000])
        return await self.noticed(f"ip link set lo mtu {mtu - 1}", f"ip link set lo mtu {mtu}")

    async def daemon_back(self, number):
        await self.programs.stop("gwad", number)
        away_s = self.random.random() * 3
        await asyncio.sleep(away_s)
        self.programs.start_gwad()
        return f"started after {away_s:.1f} s", self.run.now()

    async def daemon_killed(self, _):
        return await self.daemon_back(signal.SIGKILL)

    async def daemon_told_to_end(self, _):
        return await self.daemon_back(signal.SIGTERM)

    async def relay_gone_mad(self, _):
        rogue = Rogue(self.run)
        await self.programs.stop("gwrelay")
        seconds = 6 + self.random.random() * 9
        await rogue.rage(seconds)
        await self.programs.start_relay()
        return f"for {seconds:.0f} s, {rogue.frames} floods", self.run.now()
