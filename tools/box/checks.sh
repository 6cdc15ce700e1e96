# shellcheck shell=bash
# checks.sh - what the daemon has to do inside the box. Sourced by scripts/box; each function is one
# check, fails with a reason on standard output, and leaves the box with a device that is up.

BOX_HOME=/opt/gwad      # on its disk
BOX_LOG=$BOX_HOME/gwad.log
LOGIN_LIMIT=120        # s for a start, five logins and what went wrong in between
MEMORY_LIMIT_KB=2048   # of the idle daemon, beyond a program that uses nothing but the C library
PAGES=600              # of one load of pages
PAGES_AT_ONCE=10
PAGES_GROWTH_KB=32     # by one such load: 55 bytes a request
BULK_GROWTH_KB=128     # by 4 MB both ways on every data connection: 26 bytes a frame

# fetch URL FILE [CURL OPTION...]
fetch() {
    local url=$1 file=$2
    shift 2
    rm -f "$file" # curl makes none for an empty answer
    curl -sSf --max-time 300 -o "$file" "$@" "$url" || fail "cannot fetch $url"
}

fail() {
    echo "$*"
    return 1
}

# The process in the pid file, if it runs.
gwad_pid() { on_box "pid=\$(cat $BOX_HOME/tmp/gwad.pid) && test -d /proc/\$pid && echo \$pid"; }

# gwad_is_new OLD: another process is the daemon now.
gwad_is_new() {
    local pid
    pid=$(gwad_pid) && [ "$pid" != "$1" ]
}

# Both sides have to say so: for a while the relay may still hold connections of a former gwad.
is_connected() {
    local connections
    connections=$(on_box "netstat -tn | grep -c ' 10.0.2.2:.*ESTABLISHED'") || return 1
    [ "$connections" -eq $((DATA_CONNECTIONS + 1)) ] && device_is_up
}

# Every gwad so far has been started by the init script, whose settings count its calls: where it
# cannot be run, gwad executes itself, and the process is a new one too.
starts_agree() {
    local asked started
    asked=$(on_box "grep -c '^start$' $BOX_HOME/gwadsh.calls") || return 1
    started=$(lines_in_log 'gwad start') || return 1
    [ "$asked" -eq "$started" ]
}

# The daemon has been replaced and the relay sees its connections. $1: the old process.
comes_back() {
    wait_for "$LOGIN_LIMIT" gwad_is_new "$1" || fail "no new gwad after $LOGIN_LIMIT s" || return 1
    wait_for "$LOGIN_LIMIT" is_connected || fail "the device is not up after $LOGIN_LIMIT s" || return 1
    starts_agree || fail "gwad has been started without the init script"
}

# lines_in_log TEXT: how many lines of gwad's log have it.
lines_in_log() { on_box "grep -c '$1' $BOX_LOG || true"; }

# memory_of PID: the resident kB. VmRSS may lag behind by some pages a thread where there may be more than
# one processor.
memory_of() {
    local file=/proc/$1/smaps_rollup
    on_box "grep -q ^Rss: $file && sed -n 's/^Rss:[^0-9]*\([0-9]*\) kB/\1/p' $file"
}
descriptors_of() { on_box "test -d /proc/$1/fd && ls /proc/$1/fd | wc -l"; }
descriptors_are_at_most() { [ "$(descriptors_of "$1")" -le "$2" ]; }
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

ports_at_relay() {
    curl -sf --max-time 5 "http://127.0.0.1:$front_port/status.json" |
        sed -n 's/.*"ports":\({[^}]*}\).*/\1/p'
}
ports_are() { [ "$(ports_at_relay)" = "$1" ]; }

# The web server, announced as the box's page, can then be reached without its port.
check_announce() {
    local page=http://${box_url##*/}.localhost:$front_port/
    ports_are "{}" || fail "announced before: $(ports_at_relay)" || return 1
    on_box "gwad-announce http 80" || fail "gwad-announce fails" || return 1
    wait_for 10 ports_are '{"http_port":80}' ||
        fail "announced at the relay: $(ports_at_relay)" || return 1
    fetch "$page" "$work/page" && cmp "$work/page" "$box_dir/root/www/index.html"
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

# debug_log_level LEVEL
debug_log_level() {
    fetch "$box_url/10010/?x-qv-gwad-opt=log&loglv=$1" "$work/log" || return 1
    [ "$(cat "$work/log")" = OK ] || fail "log: $(cat "$work/log")"
}

check_debug_port() {
    local before after
    fetch "$box_url/10010/?x-qv-gwad-opt=echo" "$work/echo" || return 1
    [ "$(cat "$work/echo")" = echo ] || fail "echo: $(cat "$work/echo")" || return 1
    before=$(lines_in_log '<7>')
    debug_log_level 7 && check_pages && debug_log_level 3 || return 1
    after=$(lines_in_log '<7>')
    [ "$after" -gt "$before" ] || fail "level 7 logs no more than level 3" || return 1
    check_pages || return 1
    [ "$(lines_in_log '<7>')" -eq "$after" ] || fail "level 3 logs as much as level 7" || return 1
    fetch "$box_url/10010/?x-qv-gwad-opt=diag&timeout=5" "$work/diag" || return 1
    { [ "$(cat "$work/diag")" = "$(on_box "cat $BOX_HOME/tmp/wkr/sysdiag.txt")" ] &&
        grep -q '^Linux box' "$work/diag"; } || fail "diag: $(cat "$work/diag")"
}

# The interface before the network card has another random address at each boot.
check_box_id() {
    local id
    id=$(on_box "tr -d : </sys/class/net/eth0/address") || return 1
    { [ "$(on_box "cat /sys/class/net/dummy0/addr_assign_type")" = 1 ] &&
        on_box "cd /sys/class/net && test \$(cat dummy0/ifindex) -lt \$(cat eth0/ifindex)"; } ||
        fail "no interface with a random address comes before the network card" || return 1
    [ "${box_url##*/}" = "$id" ] || fail "the id is ${box_url##*/}, the network card $id"
}

check_cable() {
    local pid changes
    pid=$(gwad_pid) || return 1
    changes=$(lines_in_log 'detect link up')
    network_cable off
    sleep 5 # the card's driver looks at the cable every two seconds
    network_cable on
    comes_back "$pid" || return 1
    [ "$(lines_in_log 'detect link up')" -gt "$changes" ] ||
        fail "gwad has not seen the cable" || return 1
    check_pages
}

check_relay_restart() {
    local pid
    pid=$(gwad_pid) || return 1
    relay_kill
    relay_start "$manager_port"
    comes_back "$pid" && check_pages
}

# gwadsh_status STATUS: what "gwadsh status" ends with.
gwadsh_status() {
    local status=0
    on_box "/etc/init.d/gwadsh status" >/dev/null || status=$?
    [ "$status" -eq "$1" ] || fail "gwadsh status ends with $status, not $1"
}

check_killed() {
    local pid
    pid=$(gwad_pid) || return 1
    gwadsh_status 0 || return 1
    on_box "kill -9 $pid" || return 1
    gwadsh_status 1 || return 1
    on_box "/etc/init.d/gwadsh start" || fail "the init script says no" || return 1
    comes_back "$pid" && gwadsh_status 0 && check_pages
}

# The power fails. The disk keeps log and settings, and a pid file that names nobody any more, or somebody
# else; gwad comes up by itself.
check_power_cut() {
    local starts
    starts=$(lines_in_log 'gwad start')
    on_box "cp $BOX_LOG $BOX_HOME/log.before && sed -i 's/-V 3/-V 4/' $BOX_HOME/etc/gwad && sync" || return 1
    machine_power_cycle
    wait_for "$LOGIN_LIMIT" is_connected || fail "the device is not up after $LOGIN_LIMIT s" || return 1
    on_box "head -c \$(wc -c <$BOX_HOME/log.before) $BOX_LOG | cmp - $BOX_HOME/log.before" ||
        fail "the log is not what it was, and more" || return 1
    { [ "$(lines_in_log 'gwad start')" -eq $((starts + 1)) ] && starts_agree; } ||
        fail "not one gwad has been started" || return 1
    on_box "tr '\\0' ' ' </proc/$(gwad_pid)/cmdline | grep -q -e '-V 4 '" ||
        fail "the settings are lost" || return 1
    check_pages
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

# Many pages, each on a stream of its own, and all of it has come.
load_pages() {
    local whole
    whole=$(curl -sS --no-progress-meter --max-time 300 --parallel --parallel-max "$PAGES_AT_ONCE" \
        -o "$work/load.#1" -w '%{http_code} %{size_download}\n' "$box_url/80/index.html?[1-$PAGES]" |
        grep -cx "200 $(stat -c %s "$box_dir/root/www/index.html")")
    rm -f "$work"/load.*
    [ "$whole" -eq "$PAGES" ] || fail "$whole of $PAGES pages"
}

# The allocator keeps what the workers have once needed, so all of them are loaded at once.
load_bulk() {
    at_once "$DATA_CONNECTIONS" check_download || fail "downloads" || return 1
    at_once "$DATA_CONNECTIONS" check_upload || fail "uploads"
}

check_memory() {
    local pid idle libc
    pid=$(gwad_pid) || return 1
    on_box "idle >/dev/null 2>&1 & echo \$! >/tmp/idle.pid; sleep 1"
    libc=$(memory_of "$(on_box "cat /tmp/idle.pid")") || return 1
    on_box "kill \$(cat /tmp/idle.pid)"
    idle=$(memory_of "$pid") || return 1
    say "    resident: gwad $idle kB, a program that does nothing $libc kB: $((idle - libc)) kB more"
    [ $((idle - libc)) -le "$MEMORY_LIMIT_KB" ] || fail "more than $MEMORY_LIMIT_KB kB"
}

# check_growth LOAD LIMIT_KB: loads four times. The heap is as large as the greatest need so far, so
# one load may take more than those before it; what leaks, leaks in each.
check_growth() {
    local pid now memory=() descriptors=() growth i step
    pid=$(gwad_pid) || return 1
    for _ in 1 2 3 4; do
        "$1" || return 1
        sleep 2 # for the last streams to be closed; a slow box takes longer
        wait_for 20 descriptors_are_at_most "$pid" "${descriptors[0]-9999}" || true
        now=$(memory_of "$pid") || fail "gwad has restarted meanwhile" || return 1
        memory+=("$now")
        descriptors+=("$(descriptors_of "$pid")")
    done
    say "    resident kB after each load: ${memory[*]}; descriptors: ${descriptors[*]}"
    growth=$((memory[1] - memory[0]))
    for i in 2 3; do
        step=$((memory[i] - memory[i - 1]))
        growth=$((step < growth ? step : growth))
    done
    [ "$growth" -le "$2" ] || fail "each load takes $growth kB more, allowed are $2" || return 1
    [ "${descriptors[3]}" -le "${descriptors[0]}" ] || fail "descriptors leak"
}

check_load_pages() { check_growth load_pages "$PAGES_GROWTH_KB"; }

check_load_bulk() {
    check_growth load_bulk "$BULK_GROWTH_KB" || return 1
    say "    deepest stack of a thread: $(deepest_stack_of "$(gwad_pid)") kB"
}

check_stop() {
    local pid
    pid=$(gwad_pid) || return 1
    on_box "test -S $BOX_HOME/tmp/dlna.sock" || fail "there is no socket file" || return 1
    on_box "/etc/init.d/gwadsh stop" || fail "the init script says no" || return 1
    on_box "test ! -d /proc/$pid" || fail "gwad still runs" || return 1
    on_box "test ! -e $BOX_HOME/tmp/dlna.sock" || fail "the socket file is still there" || return 1
    on_box "/etc/init.d/gwadsh stop" || fail "the second stop fails" || return 1
    gwadsh_status 3
}

# A new address restarts gwad, which for two seconds is nothing but a process that will run the init
# script. It is held there, as a slow box needs longer to be asked.
check_stop_in_restart() {
    local pid hold wait_for_end
    on_box "/etc/init.d/gwadsh start" || fail "the init script says no" || return 1
    wait_for "$LOGIN_LIMIT" is_connected || fail "the device is not up" || return 1
    pid=$(gwad_pid) || return 1
    hold="for i in \$(seq 100); do all=\$(pidof gwad); test \"\$all\" = $pid || break; usleep 100000; done; \
        for child in \$all; do test \$child = $pid || break; done; test \$child != $pid && kill -STOP \$child"
    wait_for_end="for i in \$(seq 100); do test -d /proc/$pid || break; usleep 100000; done"
    on_box "ip addr add 10.0.2.16/24 dev eth0; $hold || exit; $wait_for_end; \
        ! test -d /proc/$pid && /etc/init.d/gwadsh status; held=\$?; kill -CONT \$child; exit \$held" >/dev/null ||
        fail "a new address does not restart gwad, or the init script does not see it" || return 1
    on_box "/etc/init.d/gwadsh stop" || fail "the init script says no" || return 1
    sleep 3
    gwadsh_status 3
}
