"""The programs of a run: started, watched, and each of their ends accounted for.

This process is the first of its machine, so those come to it too whose parent has ended, such as a
daemon that has restarted."""

import asyncio
import collections
import contextlib
import glob
import os
import signal
import subprocess

from programs import TICKS, start

LOOK_S, SAMPLE_S = 0.02, 0.25
PAGE_KB = os.sysconf("SC_PAGE_SIZE") // 1024
START_S = 20
STOP_S = 5
# Reports go to files: a daemon that has restarted has no standard error any more.
SANITIZERS = {
    "ASAN_OPTIONS": "log_path={0}/report:exitcode=99:quarantine_size_mb=16:detect_leaks=1",
    "UBSAN_OPTIONS": "log_path={0}/report:print_stacktrace=1",
    "TSAN_OPTIONS": "log_path={0}/report:exitcode=99",
}


class Figures:
    """Of a program, over all its processes."""

    def __init__(self):
        self.starts = 0
        self.ticks = collections.Counter()  # by process
        self.peak_kb = self.kb = self.descriptors = self.most_descriptors = 0
        self.most_threads = 0

    def take(self, pid):
        with open(f"/proc/{pid}/stat") as file:
            fields = file.read().rpartition(")")[2].split()
        self.ticks[pid] = int(fields[11]) + int(fields[12])
        self.most_threads = max(self.most_threads, int(fields[17]))
        self.kb = int(fields[21]) * PAGE_KB
        self.descriptors = len(os.listdir(f"/proc/{pid}/fd"))
        self.most_descriptors = max(self.most_descriptors, self.descriptors)
        with open(f"/proc/{pid}/status") as file:
            peak = next((int(line.split()[1]) for line in file if line.startswith("VmHWM:")), 0)
        self.peak_kb = max(self.peak_kb, peak)

    def cpu_s(self):
        return sum(self.ticks.values()) / TICKS


class Programs:
    def __init__(self, run, folder):
        self.run, self.folder, self.work = run, folder, run.work
        self.home = f"{self.work}/home"
        self.pid = {"gwad": None, "gwrelay": None}
        self.figures = {name: Figures() for name in self.pid}
        self.started = []        # kept: one that is dropped would take its own end away from us
        self.commands = {}       # by process: whoever waits for its end
        self.told = {}           # by process: the signal that we have sent it
        for folder in ("tmp/wkr", "etc", "bin"):
            os.makedirs(f"{self.home}/{folder}")
        with open(f"{self.home}/etc/firmware", "w") as file:
            file.write("CURVER=1.2.3\nCOMPONENT=soak\nTERMINAL=none\n")
        self.environment = os.environ | {"RES_OPTIONS": "timeout:1 attempts:1"} | {
            name: text.format(self.work) for name, text in SANITIZERS.items()}

    def launch(self, name, *command, **options):
        self.started.append(start(self.work, name, *command, env=self.environment, **options))
        return self.started[-1].pid

    async def command(self, text):
        """One that has to go well."""
        pid = self.launch("commands", *text.split())
        self.commands[pid] = asyncio.get_running_loop().create_future()
        if await self.commands[pid]:
            self.run.fail(f"{text}: failed")

    def gwad_command(self):
        return [f"{self.folder}/gwad", "-r", self.run.address, "-p", str(self.run.ports["manager"]),
                "-i", "lo", "-I", self.run.box, "-H", self.home, "-l", f"{self.work}/gwad.log",
                "-V", "3"]

    def start_gwad(self):
        """With the descriptors that it has after a restart by itself, so that all its processes
        have as many."""
        self.pid["gwad"] = self.launch("gwad", *self.gwad_command(), stdout=subprocess.DEVNULL,
                                       stderr=subprocess.DEVNULL)

    async def start_relay(self):
        ports = [word for name, port in self.run.ports.items() for word in (f"--{name}-port", port)]
        pid = self.launch("gwrelay", f"{self.folder}/gwrelay", "-q", "--config", "/dev/null",
                          "--drain", 0, "--listen", "0.0.0.0", "--open", "--open-users",
                          "--announce", self.run.address, *ports)
        self.pid["gwrelay"] = pid
        end = self.run.now() + START_S
        while await self.run.status() is None:
            if self.run.now() > end or self.pid["gwrelay"] != pid:
                self.run.fail("the relay does not start")
                return
            await asyncio.sleep(LOOK_S)

    def send(self, name, number):
        if (pid := self.pid[name]) is not None:
            self.told[pid] = number
            os.kill(pid, number)
        return pid

    async def gone(self, pid, limit_s):
        """False: the process is still there then."""
        end = self.run.now() + limit_s
        while os.path.exists(f"/proc/{pid}") and self.run.now() < end:
            await asyncio.sleep(LOOK_S)
        return not os.path.exists(f"/proc/{pid}")

    async def stop(self, name, number=signal.SIGTERM):
        pid = self.send(name, number)
        limit_s = STOP_S * self.run.patience
        if pid is not None and not await self.gone(pid, limit_s):
            self.run.fail(f"{name} does not end within {limit_s} s")
            os.kill(pid, signal.SIGKILL)

    async def watch(self):
        """For ever: who has ended, and what those who have not have cost."""
        sampled = 0
        while True:
            self.reap()
            if self.run.now() - sampled > SAMPLE_S:
                sampled = self.run.now()
                self.sample()
            await asyncio.sleep(LOOK_S)

    def reap(self):
        try:
            while (ended := os.waitpid(-1, os.WNOHANG))[0]:
                self.ended(ended[0], os.waitstatus_to_exitcode(ended[1]))
        except ChildProcessError:
            pass  # nobody is left

    def ended(self, pid, code):
        """A daemon that restarts ends with status 0; so does who is told to end."""
        told = self.told.pop(pid, None)
        if pid in self.commands:
            self.commands.pop(pid).set_result(code)
            return
        for name, current in self.pid.items():
            if pid == current:
                self.pid[name] = None
                if told is None and not self.run.faults.active:
                    self.run.fail(f"{name} has ended by itself, without a fault")
        if code != 0 and not (code == -signal.SIGKILL and told == signal.SIGKILL):
            self.run.fail(f"process {pid} has ended by signal {-code}" if code < 0 else
                          f"process {pid} has ended with status {code}")
        for report in glob.glob(f"{self.work}/report.{pid}"):
            with open(report, errors="replace") as file:
                self.run.fail(f"a sanitizer's report:\n{file.read()[:6000]}")

    def sample(self):
        self.find_gwad()
        for name, pid in self.pid.items():
            try:
                if pid is not None:
                    self.figures[name].starts += pid not in self.figures[name].ticks
                    self.figures[name].take(pid)
            except OSError:
                pass  # it has just ended

    def descriptors(self, name):
        """What they are."""
        folder = f"/proc/{self.pid[name]}/fd"
        with contextlib.suppress(OSError):
            return " ".join(f"{number} {os.readlink(f'{folder}/{number}')}"
                            for number in os.listdir(folder))
        return ""

    def find_gwad(self):
        """Whoever has written the daemon's file of its process: a successor, when it lives."""
        try:
            with open(f"{self.home}/tmp/gwad.pid") as file:
                pid = int(file.read() or 0)
        except (OSError, ValueError):
            return
        if pid and pid != self.pid["gwad"] and os.path.exists(f"/proc/{pid}"):
            self.pid["gwad"] = pid
