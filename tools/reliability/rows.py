"""One fault each, and the seconds until the next relayed byte: a row of docs/reliability.md.

rows.py --list, or inside tools/link/run: rows.py ROW PROGRAMS FOLDER
"""

import os
import signal
import statistics
import sys
import time

from ends import CONNECTIONS, Site, Transfer, Trouble, next_byte, wait_until

MANY, FEW = 1 << 30, 20_000_000  # bytes: no end is waited for, and one is
REPEATS = 3
# Seconds: until a row has failed; without a request, before something happens to an idle box; while
# the relay is away, the line is cut, and one of the two does not run; until gwad has begun a restart,
# and until it has sent a heartbeat.
LIMIT, IDLE_BEFORE, AWAY, CUT, STOPPED, PAUSE, HEARTBEAT = 180, 5, 30, 20, 100, 4, 70
# What the daemon logs when a connection fails.
FAILED = ("reinit connection cntl start", "close connection data")


def seconds(value):
    return f"{value:.1f} s"


def found(by, seen):
    return f"{by}, after {seconds(seen[0])}" if seen else "-"


def several(values):
    return f"{seconds(statistics.median(values))} ({min(values):.1f} to {max(values):.1f})"


def all_back(site, start):
    site.wait_up()
    return f"all connections are back after {seconds(time.monotonic() - start)}"


def relay_restarted(site):
    times, complete = [], []
    for number in [signal.SIGTERM, signal.SIGKILL] * REPEATS:
        start = time.monotonic()
        site.relay_kill(number)
        site.relay_start()
        times.append(next_byte(start, LIMIT))
        time.sleep(PAUSE)  # gwad starts anew, whether or not a data connection was quicker
        site.wait_up()
        complete.append(time.monotonic() - start)
    return "its end", several(times), f"all connections are back after {several(complete)}"


def relay_away(site):
    site.relay_kill()
    time.sleep(AWAY)
    site.relay_start()
    start = time.monotonic()
    return "its end", seconds(next_byte(start, LIMIT)), "counted from its return"


def silent_idle(site):
    time.sleep(IDLE_BEFORE)
    start = time.monotonic()
    seen = site.watch_log(FAILED, start)
    site.forget()
    taken = next_byte(start, LIMIT)
    back = all_back(site, start)
    return found("gwad", seen), seconds(taken), back


def silent_in_download(site):
    user = Transfer(MANY)
    start = time.monotonic()
    seen = site.watch_log(FAILED, start)
    site.forget()
    taken = next_byte(start, LIMIT)
    wait_until(lambda: user.ended, LIMIT, "the end of the download that was cut off")
    if not user.right:
        raise Trouble("wrong bytes in the download")
    return found("gwad", seen), seconds(taken), f"the download is reset after {seconds(user.ended - start)}"


def silent_in_wait(site):
    """The relay does not run, so that a heartbeat is not answered; then nothing comes through either."""
    site.relay.send_signal(signal.SIGSTOP)
    time.sleep(HEARTBEAT)
    start = time.monotonic()
    seen = site.watch_log(FAILED, start)
    site.forget()
    site.relay.send_signal(signal.SIGCONT)
    taken = next_byte(start, LIMIT)
    back = all_back(site, start)
    return found("gwad", seen), seconds(taken), back


def cut_in_download(site):
    user, pid = Transfer(FEW), site.box_pid()
    site.order("both loss=100%")
    time.sleep(CUT)
    before, start = user.done, time.monotonic()
    site.order("both loss=0")
    return goes_on(site, user, pid, before, start)


def goes_on(site, user, pid, before, start):
    """The same daemon goes on with the same transfer, and no connection has ended."""
    wait_until(lambda: user.done > before or user.ended, LIMIT, "a byte more")
    taken = time.monotonic() - start
    wait_until(lambda: user.ended, LIMIT, "the end of the transfer")
    if not user.whole():
        raise Trouble(f"a transfer that was held up is not whole: {user.done} of {user.size}")
    if site.box_pid() != pid or site.log_count(FAILED) > 0:
        raise Trouble("a connection has ended that was only held up")
    return "nobody", seconds(taken), "counted from its end; the transfer goes on"


def fin(site, count):
    time.sleep(IDLE_BEFORE)
    start = time.monotonic()
    seen = site.watch_log(FAILED, start)
    site.forwarders[-1].end(count)
    taken = next_byte(start, LIMIT)
    back = all_back(site, start)
    return found("gwad", seen), seconds(taken), back


def fin_one(site):
    return fin(site, 1)


def fin_all(site):
    return fin(site, CONNECTIONS)


def killed(site):
    times = []
    for _ in range(REPEATS):
        os.kill(site.box_pid(), signal.SIGKILL)
        start = time.monotonic()
        site.box_start()
        times.append(next_byte(start, LIMIT))
        site.wait_up()
    return "its end", several(times), "counted from its start"


def rebooted(site):
    """Nothing of the box tells the relay: what its kernel would say is lost."""
    pid = site.box_pid()
    site.forget()
    os.kill(pid, signal.SIGKILL)
    start = time.monotonic()
    site.box_start()
    return "its login", seconds(next_byte(start, LIMIT)), "counted from gwad's start"


def gone(site, upload):
    """The box stays away: when the relay knows, and tells the users."""
    user = Transfer(MANY, upload=True) if upload else None
    start = time.monotonic()
    pid = site.box_pid()
    site.forget()
    os.kill(pid, signal.SIGKILL)
    wait_until(lambda: site.device() != (True, CONNECTIONS), LIMIT, "the relay to notice")
    first = [time.monotonic() - start]
    wait_until(lambda: site.device() == (False, 0), LIMIT, "the relay to notice all")
    last = f"all six connections after {seconds(time.monotonic() - start)}"
    if user:
        wait_until(lambda: user.ended, LIMIT, "the end of the upload")
        last = f"{last}; the user knows after {seconds(user.ended - start)}"
    return found("gwrelay", first), "", last


def gone_idle(site):
    time.sleep(IDLE_BEFORE)
    return gone(site, False)


def gone_in_upload(site):
    return gone(site, True)


def stopped(site, process, upload):
    """Lives, and takes nothing: its kernel acknowledges."""
    user, pid = Transfer(FEW, upload), site.box_pid()
    os.kill(process, signal.SIGSTOP)
    time.sleep(STOPPED)
    before, start = user.done, time.monotonic()
    os.kill(process, signal.SIGCONT)
    return goes_on(site, user, pid, before, start)


def stopped_relay(site):
    return stopped(site, site.relay.pid, False)


def stopped_box(site):
    return stopped(site, site.box_pid(), True)


ROWS = {
    "relay_restarted": (relay_restarted, "relay restarted (SIGTERM, SIGKILL)"),
    "relay_away": (relay_away, f"relay away for {AWAY} s"),
    "killed": (killed, "gwad killed (SIGKILL) and started"),
    "rebooted": (rebooted, "box rebooted without a word"),
    "silent_idle": (silent_idle, "link silent while idle"),
    "silent_in_wait": (silent_in_wait, "link silent while a heartbeat's answer is waited for"),
    "silent_in_download": (silent_in_download, "link silent in mid-download"),
    "cut_in_download": (cut_in_download, f"line cut for {CUT} s in mid-download"),
    "fin_one": (fin_one, "FIN on one data connection, nobody behind it"),
    "fin_all": (fin_all, "FIN on all five, nobody behind them"),
    "stopped_relay": (stopped_relay, f"relay reads nothing for {STOPPED} s in mid-download"),
    "stopped_box": (stopped_box, f"box reads nothing for {STOPPED} s in mid-upload"),
    "gone_idle": (gone_idle, "box gone without a word while idle"),
    "gone_in_upload": (gone_in_upload, "box gone without a word in mid-upload"),
}


def main():
    if sys.argv[1] == "--list":
        print("\n".join(ROWS))
        return
    if os.environ.get("IN_RELAY") is None:  # tools/link/run starts this at the box's end
        os.environ["IN_RELAY"] = "yes"
        os.execvp("ip", ["ip", "netns", "exec", os.environ["LINK_RELAY"], sys.executable, "-B", *sys.argv])
    name, programs, folder = sys.argv[1:]
    measure, title = ROWS[name]
    try:
        site = Site(programs, folder, behind=name.startswith("fin"))
        print(f"| {title} | {' | '.join(measure(site))} |", flush=True)
    except Trouble as trouble:
        print(f"| {title} | FAILED | | {trouble} |", flush=True)
        status = 1
    else:
        status = 0
    os._exit(status)  # users may still wait for answers


main()
