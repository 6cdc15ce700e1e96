# shellcheck shell=bash
# link.sh - two network namespaces, "box" and "relay", with gwlink's line between them. Up is from
# the box to the relay. Sourced, after scripts/lib.sh, by scripts that run with `set -eu` as root.
#
#   link_start DIR [--mtu N] [OPTION OF GWLINK...]
#                             makes both; DIR, which exists, holds what belongs to the link
#   "${link_box[@]}" COMMAND, "${link_relay[@]}" COMMAND
#                             runs it in one of them; in the background $! is the command's own number
#   link_order "up rate=1M"   changes the line while it is there; "counts" asks for the counts
#   link_cut SECONDS          nothing comes through for so long, in either direction
#   link_counts up            the counts of a direction, as gwlink tells them
#   link_stop                 ends what runs in both, and removes them; to be called at exit, too

# shellcheck disable=SC2034 # for those who source this
LINK_BOX_ADDRESS=10.99.0.1 LINK_RELAY_ADDRESS=10.99.0.2
LINK_STOP_LIMIT=5  # s for what runs in a namespace to end after SIGTERM
LINK_PROGRAM=build/release/gwlink
LINK_CONGESTION=cubic

link_work="" link_pid=""
link_box=() link_relay=()

link_start() {
    local mtu=1500
    link_work=$1
    shift
    if [ "${1-}" = --mtu ]; then
        mtu=$2
        shift 2
    fi
    link_box=(ip netns exec "gwbox-$$") link_relay=(ip netns exec "gwrelay-$$")
    ip netns add "gwbox-$$"
    ip netns add "gwrelay-$$"
    [ -p "$link_work/control" ] || mkfifo "$link_work/control"
    setsid "$LINK_PROGRAM" --control "$link_work/control" "$@" \
        "/run/netns/gwbox-$$" "/run/netns/gwrelay-$$" >"$link_work/link.out" 2>"$link_work/link.err" &
    link_pid=$!
    wait_for 5 link_is_ready || die "no link: $(cat "$link_work/link.err")"
    kill -0 "$link_pid" 2>/dev/null || die "no link: $(cat "$link_work/link.err")"
    link_end "gwbox-$$" "$LINK_BOX_ADDRESS" "$LINK_RELAY_ADDRESS" "$mtu"
    link_end "gwrelay-$$" "$LINK_RELAY_ADDRESS" "$LINK_BOX_ADDRESS" "$mtu"
}

link_is_ready() { [ -s "$link_work/link.out" ] || ! kill -0 "$link_pid" 2>/dev/null; }

# link_end NAMESPACE ADDRESS PEER MTU. What a plain kernel has, whatever this machine is tuned to: its
# buffers, its congestion control (which a namespace may not choose for itself, but a route may).
# Nothing is remembered of connections that have ended, and no IPv6 sends what nobody has asked for.
link_end() {
    ip -n "$1" link set lo up
    ip netns exec "$1" sh -c '
        cd /proc/sys/net
        echo 1 >ipv4/tcp_no_metrics_save
        echo 4096 16384 4194304 >ipv4/tcp_wmem
        echo 4096 131072 6291456 >ipv4/tcp_rmem
        [ ! -e ipv6 ] || echo 1 >ipv6/conf/all/disable_ipv6'
    ip -n "$1" address add "$2" peer "$3" dev line0
    ip -n "$1" link set line0 mtu "$4" up
    ip -n "$1" route replace "$3" dev line0 src "$2" congctl "$LINK_CONGESTION"
}

link_order() { printf '%s\n' "$*" >"$link_work/control"; }

# link_cut SECONDS LOSS: what the loss is otherwise has to be said, as only the caller knows it.
link_cut() {
    link_order "both loss=100%"
    sleep "$1"
    link_order "both loss=${2-0}"
}

# Asks, and waits for the answer: a line more than before.
link_counts() {
    local before
    before=$(grep -c "^$1 " "$link_work/link.out" || true)
    link_order counts
    wait_for 5 link_has_answered "$1" "$before" || die "gwlink does not answer"
    grep "^$1 " "$link_work/link.out" | tail -n 1
}

link_has_answered() { [ "$(grep -c "^$1 " "$link_work/link.out")" -gt "$2" ]; }

# Everything in a namespace is ours: nobody else knows of it.
link_processes() {
    ip netns pids "gwbox-$$" 2>/dev/null
    ip netns pids "gwrelay-$$" 2>/dev/null
}

link_is_empty() { [ -z "$(link_processes)" ]; }

link_stop() {
    local pids
    [ -n "$link_work" ] || return 0
    # gwlink stays in one of the namespaces, and ends with the others.
    pids=$(link_processes)
    # shellcheck disable=SC2086 # numbers
    [ -z "$pids" ] || kill -TERM $pids 2>/dev/null || true
    if ! wait_for "$LINK_STOP_LIMIT" link_is_empty; then
        pids=$(link_processes)
        # shellcheck disable=SC2086 # numbers
        [ -z "$pids" ] || kill -KILL $pids 2>/dev/null || true
    fi
    [ -z "$link_pid" ] || wait "$link_pid" 2>/dev/null || true
    link_pid=""
    ip netns del "gwbox-$$" 2>/dev/null || true
    ip netns del "gwrelay-$$" 2>/dev/null || true
    link_work=""
}
