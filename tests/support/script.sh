# shellcheck shell=bash
# script.sh - what tests of whole programs share that are shell scripts: a machine of their own, a folder
# that is removed, waiting, a relay. Sourced first, with `set -eu` and the script's own arguments.

export PATH=$PATH:/usr/sbin:/sbin
# On a network, with process numbers and with a /tmp of its own where the machine allows it: what is left
# running ends with it, and nobody else's gwad takes the socket there that has a fixed name. What the
# checkout is in stays, should that be in /tmp as well.
if [ -z "${GWAD_TEST_ISOLATED-}" ]; then
    # shellcheck disable=SC2016
    for user in --pid --map-root-user; do
        ! unshare --fork --kill-child --pid --net --mount-proc "$user" true 2>/dev/null ||
            GWAD_TEST_ISOLATED=1 exec unshare --fork --kill-child --pid --net --mount-proc "$user" sh -euc '
                ip link set lo up
                mount -t tmpfs tmpfs /mnt
                case $PWD in /tmp/*)
                    top=${PWD#/tmp/} top=${top%%/*}
                    mkdir "/mnt/$top"
                    mount --bind "/tmp/$top" "/mnt/$top" ;;
                esac
                mount --rbind /mnt /tmp
                cd "$PWD"
                exec "$0" "$@"' "$0" "$@"
    done
fi

work=$(mktemp -d)
at_exit() {
    local status=$?
    # shellcheck disable=SC2046
    kill -KILL $(jobs -p) 2>/dev/null || true
    wait 2>/dev/null
    [ $status -eq 0 ] || find "$work" \( -name '*.log' -o -name log \) -exec tail -n 20 {} + >&2
    rm -rf "$work"
    exit "$status"
}
trap at_exit EXIT
trap 'exit 1' INT TERM

fail() {
    echo "FAILED: $*" >&2
    exit 1
}

# wait_for COMMAND...: for 40 s at most.
wait_for() {
    local end=$((SECONDS + 40))
    until "$@"; do
        [ $SECONDS -lt $end ] || fail "waited in vain: $*"
        sleep 0.1
    done
}

# relay_start GWRELAY MANAGER_PORT [OPTION...]: sets relay_pid and the ports; 0 is any.
relay_start() {
    : >"$work/ready"
    "$1" --config /dev/null --drain 0 --manager-port "$2" --control-port 0 --data-port 0 --front-port 0 \
        "${@:3}" >"$work/ready" 2>>"$work/gwrelay.log" &
    # shellcheck disable=SC2034
    relay_pid=$!
    wait_for grep -q '^ready' "$work/ready"
    # shellcheck disable=SC2034
    manager=$(relay_port manager) control=$(relay_port control) data=$(relay_port data) front=$(relay_port front)
}
relay_port() { sed -n "s/^ready .*$1=\([0-9]*\).*/\1/p" "$work/ready"; }
