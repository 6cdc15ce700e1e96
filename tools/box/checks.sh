# shellcheck shell=bash
# checks.sh - what the daemon has to do inside the box. Sourced by scripts/box; each function is one
# check, fails with a reason on standard output, and leaves the box with a device that is up.

LOGIN_LIMIT=120        # s for a start, five logins and what went wrong in between
MEMORY_LIMIT_KB=2048   # of the idle daemon, beyond a program that uses nothing but the C library
MEMORY_GROWTH_KB=512   # between two equal loads: what the allocator keeps varies
DESCRIPTOR_GROWTH=1
LOAD_ROUNDS=20
LOAD_PARALLEL=10

# fetch URL FILE [CURL OPTION...]
fetch() {
    local url=$1 file=$2
    shift 2
    curl -sSf --max-time 120 -o "$file" "$@" "$url" || fail "cannot fetch $url"
}

fail() {
    echo "$*"
    return 1
}

gwad_pid() { on_box "cat /tmp/gwad.pid"; }

# gwad_is_new OLD: another process is the daemon now.
gwad_is_new() {
    local pid
    pid=$(gwad_pid) && [ -n "$pid" ] && [ "$pid" != "$1" ] && on_box "test -d /proc/$pid"
}

# Both sides have to say so: for a while the relay may still hold connections of a former gwad.
is_connected() {
    local connections
    connections=$(on_box "netstat -tn | grep -c ' 10.0.2.2:.*ESTABLISHED'") || return 1
    [ "$connections" -eq $((DATA_CONNECTIONS + 1)) ] && device_is_up
}

# The daemon has been replaced and the relay sees its connections. $1: the old process.
comes_back() {
    wait_for "$LOGIN_LIMIT" gwad_is_new "$1" || fail "no new gwad after $LOGIN_LIMIT s" || return 1
    wait_for "$LOGIN_LIMIT" is_connected || fail "the device is not up after $LOGIN_LIMIT s"
}

# memory_of PID: VmRSS in kB.
memory_of() { on_box "sed -n 's/^VmRSS:[^0-9]*\([0-9]*\) kB/\1/p' /proc/$1/status"; }
descriptors_of() { on_box "ls /proc/$1/fd | wc -l"; }
# deepest_stack_of PID: kB that the thread with the deepest stack has touched, of 256 with the guard.
deepest_stack_of() {
    on_box "awk '/^Size:/ { size = \$2 } /^Rss:/ && size >= 240 && size <= 256 && \$2 > most { most = \$2 } END { print most }' /proc/$1/smaps"
}
speed_of() { awk -v time="$1" -v bytes="$2" 'BEGIN { printf "%.1f MB/s", bytes / time / 1000000 }'; }

check_pages() {
    local page
    for page in index.html "" index.html; do
        fetch "$box_url/80/$page" "$work/page" || return 1
        cmp "$work/page" "$box_dir/root/www/index.html" || return 1
    done
}

check_download() {
    local seconds file=$work/big.${1-}
    seconds=$(fetch "$box_url/80/big.bin" "$file" -w '%{time_total}') || return 1
    cmp "$file" "$box_dir/root/www/big.bin" || return 1
    say "    download: $(speed_of "$seconds" "$BIG_FILE_BYTES")"
}

check_upload() {
    local seconds expected file=$work/digest.${1-}
    expected=$(sha256sum <"$box_dir/root/www/big.bin")
    seconds=$(fetch "$box_url/80/cgi-bin/digest" "$file" -w '%{time_total}' \
        -H 'Content-Type: application/octet-stream' -H 'Expect:' \
        --data-binary "@$box_dir/root/www/big.bin") || return 1
    [ "$(cat "$file")" = "$expected" ] || fail "the box got other bytes" || return 1
    say "    upload: $(speed_of "$seconds" "$BIG_FILE_BYTES")"
}

check_debug_port() {
    fetch "$box_url/10010/?x-qv-gwad-opt=echo" "$work/echo" || return 1
    [ "$(cat "$work/echo")" = echo ] || fail "echo: $(cat "$work/echo")" || return 1
    fetch "$box_url/10010/?x-qv-gwad-opt=log&loglv=4" "$work/log" || return 1
    [ "$(cat "$work/log")" = OK ] || fail "log: $(cat "$work/log")" || return 1
    fetch "$box_url/10010/?x-qv-gwad-opt=log&loglv=3" "$work/log" || return 1
    fetch "$box_url/10010/?x-qv-gwad-opt=diag&timeout=5" "$work/diag" || return 1
    [ "$(cat "$work/diag")" = "$(on_box "cat /tmp/wkr/sysdiag.txt")" ] &&
        grep -q '^Linux box' "$work/diag" || fail "diag: $(cat "$work/diag")"
}

check_cable() {
    local pid
    pid=$(gwad_pid)
    network_cable off
    sleep 5 # the card's driver looks at the cable every two seconds
    network_cable on
    comes_back "$pid" && check_pages
}

check_relay_restart() {
    local pid
    pid=$(gwad_pid)
    relay_kill
    relay_start "$manager_port"
    comes_back "$pid" && check_pages
}

check_killed() {
    local pid
    pid=$(gwad_pid)
    on_box "kill -9 $pid" || return 1
    on_box "/etc/init.d/gwadsh status" >/dev/null && fail "status says that it runs" && return 1
    on_box "/etc/init.d/gwadsh start" || return 1
    comes_back "$pid" && on_box "/etc/init.d/gwadsh status" >/dev/null && check_pages
}

# at_once COUNT COMMAND: runs it so many times together, with a number as its argument.
at_once() {
    local worker workers=() status=0
    for worker in $(seq "$1"); do
        "$2" "$worker" >/dev/null &
        workers+=($!)
    done
    for worker in "${workers[@]}"; do
        wait "$worker" || status=1
    done
    return "$status"
}

load_page() { fetch "$box_url/80/index.html" "$work/load.$1"; }

# Pages, then the large file both ways on every data connection at once: the allocator keeps some
# memory for each thread that has once needed it.
load() {
    local round
    for round in $(seq "$LOAD_ROUNDS"); do
        at_once "$LOAD_PARALLEL" load_page || fail "pages, round $round" || return 1
    done
    at_once "$DATA_CONNECTIONS" check_download || fail "downloads" || return 1
    at_once "$DATA_CONNECTIONS" check_upload || fail "uploads" || return 1
    sleep 2 # for the last streams to be closed
}

check_memory() {
    local pid idle libc
    pid=$(gwad_pid)
    on_box "idle >/dev/null 2>&1 & echo \$! >/tmp/idle.pid; sleep 1"
    libc=$(memory_of "$(on_box "cat /tmp/idle.pid")")
    on_box "kill \$(cat /tmp/idle.pid)"
    idle=$(memory_of "$pid")
    say "    resident: gwad $idle kB, a program that does nothing $libc kB: $((idle - libc)) kB more"
    [ $((idle - libc)) -le "$MEMORY_LIMIT_KB" ] || fail "more than $MEMORY_LIMIT_KB kB"
}

# What the first load leaves behind is buffers that stay; the second one must not add to it.
check_load() {
    local pid memory=() descriptors=()
    pid=$(gwad_pid)
    memory+=("$(memory_of "$pid")") descriptors+=("$(descriptors_of "$pid")")
    for _ in 1 2; do
        load || return 1
        memory+=("$(memory_of "$pid")") descriptors+=("$(descriptors_of "$pid")")
    done
    say "    resident kB, idle and after each load: ${memory[*]}; descriptors: ${descriptors[*]}"
    say "    deepest stack of a thread: $(deepest_stack_of "$pid") kB"
    [ "$(gwad_pid)" = "$pid" ] || fail "gwad has restarted meanwhile" || return 1
    [ $((memory[2] - memory[1])) -le "$MEMORY_GROWTH_KB" ] || fail "memory grows" || return 1
    [ $((descriptors[2] - descriptors[0])) -le "$DESCRIPTOR_GROWTH" ] || fail "descriptors leak"
}

check_stop() {
    local pid
    pid=$(gwad_pid)
    on_box "/etc/init.d/gwadsh stop" || fail "the init script says no" || return 1
    on_box "test ! -d /proc/$pid" || fail "gwad still runs" || return 1
    on_box "test ! -e /tmp/dlna.sock" || fail "the socket file is still there" || return 1
    on_box "/etc/init.d/gwadsh stop" || fail "the second stop fails"
}
