# shellcheck shell=bash
# machine.sh - the emulated box: its power switch, its network cable, a way to run commands on it, and
# a socket for a debugger.
# Sourced by scripts/box, which has set `work`, a short-lived folder with the disk, box_dir, and what a
# machine kind has.

BOOT_LIMIT=120    # s: an emulator on a busy machine is slow
COMMAND_LIMIT=60  # s for one command on the box
machine_pid=""

# machine_start MANAGER_PORT: returns when the box has booted and takes commands.
machine_start() {
    setsid "${emulator[@]}" -m 128 -display none \
        -kernel "$box_dir/debian/vmlinuz" -initrd "$box_dir/ramdisk.gz" \
        -append "console=$CONSOLE,115200 quiet rdinit=/sbin/init gwad_manager_port=$1" \
        -netdev user,id=n0 -drive "id=disk,file=$work/disk,format=raw,if=none" \
        -chardev "socket,id=console,path=$work/console,server=on,wait=off,logfile=$work/console.log" \
        -chardev "socket,id=agent,path=$work/agent,server=on,wait=off" \
        -gdb "unix:$work/gdb,server=on,wait=off" \
        -monitor "unix:$work/monitor,server=on,wait=off" >"$work/qemu.log" 2>&1 </dev/null &
    machine_pid=$!
    wait_for 10 test -S "$work/monitor" || die "the emulator does not start: $(cat "$work/qemu.log")"
    coproc agent { exec socat - "UNIX-CONNECT:$work/agent"; }
    machine_boots
}

# Returns when the box takes commands after its start.
machine_boots() { agent_read "$BOOT_LIMIT" >/dev/null || die "the box does not boot within $BOOT_LIMIT s"; }

# Switches the box off and on: what it has not written to its disk is lost.
machine_power_cycle() {
    monitor_say system_reset
    machine_boots
}

machine_stop() {
    [ -n "$machine_pid" ] || return 0
    kill "$machine_pid" 2>/dev/null || true
    wait "$machine_pid" 2>/dev/null || true
    machine_pid=""
}

machine_runs() { kill -0 "$machine_pid" 2>/dev/null; }

# Passes on an answer up to its last line, "@@ STATUS". Fails if that does not come in time.
agent_read() {
    local line end=$((SECONDS + $1))
    while [ $SECONDS -lt $end ] && IFS= read -r -t "$1" -u "${agent[0]}" line; do
        line=${line%$'\r'}
        case $line in
            "@@ ready") return 0 ;;
            "@@ "*) return "${line#@@ }" ;;
            ?*) printf '%s\n' "$line" ;;
        esac
    done
    die "no answer from the box within $1 s"
}

# on_box COMMAND: its output without empty lines, and its exit status.
on_box() {
    printf '%s\n' "$1" >&"${agent[1]}"
    agent_read "$COMMAND_LIMIT"
}

# monitor_say COMMAND: to the emulator.
monitor_say() { echo "$1" | socat - "UNIX-CONNECT:$work/monitor" >/dev/null; }

# network_cable off | on
network_cable() { monitor_say "set_link n0 $1"; }

# The console, until Ctrl-].
console_attach() {
    socat STDIO,raw,echo=0,escape=0x1d "UNIX-CONNECT:$work/console"
}
