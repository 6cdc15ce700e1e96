"""What is measured and what it is measured with: programs, their ports, and what they have cost."""

import os
import random
import socket
import subprocess
import time

TICKS = os.sysconf("SC_CLK_TCK")
START_LIMIT_S = 60


class Failure(Exception):
    """The run cannot go on; the text says why."""


def start(work, name, *command, **options):
    """Starts a program whose output goes to a file of that name. Nobody has to stop it: everything
    that a run starts ends with it."""
    with open(f"{work}/{name}.out", "ab") as output:
        options = {"stdin": subprocess.DEVNULL, "stdout": output, "stderr": output} | options
        process = subprocess.Popen([str(word) for word in command], **options)
    process.name = name
    process.output = f"{work}/{name}.out"
    return process


def wait_for(what, question, process=None, limit_s=START_LIMIT_S):
    """Asks until the answer is true, and returns it."""
    end = time.monotonic() + limit_s
    while not (answer := question()):
        if process is not None and process.poll() is not None:
            raise Failure(f"{what}: {process.name} has ended:\n{tail(process.output)}")
        if time.monotonic() > end:
            raise Failure(f"{what}: not within {limit_s} s"
                          + (f":\n{tail(process.output)}" if process else ""))
        time.sleep(0.05)
    return answer


def tail(path, lines=15):
    with open(path, errors="replace") as file:
        return "".join(file.readlines()[-lines:])


def free_port():
    """Below the ports that the kernel gives to connections, so that it stays free until it is used."""
    while True:
        port = random.randrange(12000, 30000)
        with socket.socket() as probe:
            try:
                probe.bind(("127.0.0.1", port))
                return port
            except OSError:
                pass


def listens(port):
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


def cpu_s(processes):
    """User and system time of these processes so far, and of their children, ended or not."""
    return sum(tree_cpu_s(process.pid) for process in processes)


def tree_cpu_s(pid):
    try:
        with open(f"/proc/{pid}/task/{pid}/children") as file:
            seconds = sum(map(tree_cpu_s, file.read().split()))
        with open(f"/proc/{pid}/stat") as file:
            fields = file.read().rpartition(")")[2].split()
    except OSError:
        return 0  # it has just ended; its parent has the sum
    return seconds + sum(map(int, fields[11:15])) / TICKS


def peak_kb(process):
    """The most memory that it has ever had."""
    with open(f"/proc/{process.pid}/status") as file:
        return next(int(line.split()[1]) for line in file if line.startswith("VmHWM:"))


def wakeups(process):
    """How often its threads have slept and gone on."""
    count = 0
    for task in os.listdir(f"/proc/{process.pid}/task"):
        with open(f"/proc/{process.pid}/task/{task}/status") as file:
            count += next(int(line.split()[1]) for line in file
                          if line.startswith("voluntary_ctxt_switches:"))
    return count
