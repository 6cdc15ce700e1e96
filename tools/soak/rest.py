"""Whether everything is given back once the users have gone: streams, descriptors, memory, time."""

import asyncio
import os
import re

QUIET_S = 90                  # the daemon's table is written every 30 s
IDLE_S, IDLE_SHARE = 5, 0.05
PAUSE_S = 0.5


class Rest:
    def __init__(self, run):
        self.run, self.figures = run, run.programs.figures

    async def remember(self):
        """What the programs have before there is any user."""
        await asyncio.sleep(4 * PAUSE_S)
        self.before = self.now()

    def remember_end(self):
        self.after = self.now()

    def now(self):
        return {name: (each.descriptors, each.kb) for name, each in self.figures.items()}

    async def check(self):
        self.began = self.run.wall()
        end = self.run.now() + QUIET_S
        while (left := await self.left()) and self.run.now() < end:
            await asyncio.sleep(PAUSE_S)
        if left:
            self.run.fail(f"not given back within {QUIET_S} s: {'; '.join(left)}")
        before = {name: each.cpu_s() for name, each in self.figures.items()}
        await asyncio.sleep(IDLE_S)
        for name, each in self.figures.items():
            if (used := each.cpu_s() - before[name]) > IDLE_S * IDLE_SHARE * self.run.patience:
                self.run.fail(f"{name} has used {used:.1f} s of {IDLE_S} without any user")

    async def left(self):
        left = self.in_the_table()
        device = await self.run.device()
        if device is None:
            return ["the device is not there"]
        left += [f"gwrelay: {device[what]} {what}" for what in
                 ("open_streams", "kept_streams", "bytes_waiting") if device[what]]
        for name, each in self.figures.items():
            descriptors, kb = self.before[name]
            if each.descriptors > descriptors:
                left.append(f"{name}: {each.descriptors} descriptors, not {descriptors}: "
                            + self.run.programs.descriptors(name))
            if each.kb > kb + self.run.spare_kb[name]:
                left.append(f"{name}: {each.kb} KB, {kb} before the first user")
        return left

    def in_the_table(self):
        """What the daemon itself says."""
        path = f"{self.run.programs.home}/tmp/gwad.stat"
        if not os.path.exists(path) or os.path.getmtime(path) < self.began:
            return ["gwad: no table yet"]
        with open(path) as file:
            rows = re.findall(r"^\| (d\d) .*\| *(\d\S*)\| *(\d+)\| *(\d+)\|$", file.read(), re.M)
        return [f"gwad: {name} holds {memory} bytes, {buffers} buffers, {streams} streams"
                for name, memory, buffers, streams in rows if {memory, buffers, streams} != {"0"}]
