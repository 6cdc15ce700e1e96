#!/bin/bash
# gwad-doctor finds each of several faults of a real gwad and its relay, and nothing where all is well;
# also with busybox and nothing else.
#
#   doctor_test.sh BUILD_FOLDER
set -eu
export PATH=$PATH:/usr/sbin:/sbin
# On a machine of its own where that is allowed: without settings any gwad is looked at.
if [ -z "${GWAD_TEST_ISOLATED-}" ]; then
    # shellcheck disable=SC2016
    for user in --pid --map-root-user; do
        ! unshare --fork --kill-child --pid --net --mount-proc "$user" true 2>/dev/null ||
            GWAD_TEST_ISOLATED=1 exec unshare --fork --kill-child --pid --net --mount-proc "$user" \
                sh -c 'ip link set lo up && exec "$0" "$@"' "$0" "$@"
    done
fi

build=$1
gwad=$build/gwad
work=$(mktemp -d)
mkdir -p "$work/home/tmp" "$work/tools"
busybox --install -s "$work/tools"

at_exit() {
    local status=$?
    # shellcheck disable=SC2046
    kill -KILL $(jobs -p) 2>/dev/null || true
    [ $status -eq 0 ] || tail -n 20 "$work"/said "$work"/log >&2
    rm -rf "$work"
}
trap at_exit EXIT
trap 'exit 1' INT TERM

wait_for() {
    local end=$((SECONDS + 30))
    until "$@"; do
        [ $SECONDS -lt $end ] || { echo "FAILED: waited in vain: $*" >&2 && exit 1; }
        sleep 0.1
    done
}

# finds STATUS TEXT [PORT...]: ten lines, the last of which has the text.
finds() {
    local expected=$1 text=$2 path status
    shift 2
    for path in "$PATH" "$work/tools"; do
        status=0
        PATH=$path GWAD_SETTINGS=$work/settings sh "$build/packaging/gwad-doctor" "$@" >"$work/said" 2>&1 || status=$?
        if [ "$status" != "$expected" ] || [ "$(wc -l <"$work/said")" != 10 ] ||
            ! tail -n 1 "$work/said" | grep -q "verdict *$text"; then
            echo "FAILED: with $path: status $status instead of $expected, or not '$text' after nine lines" >&2
            exit 1
        fi
    done
}

# settings_write RELAY [OPTION...]
settings_write() {
    options="-r $1 -p $manager -i lo -V 7 -l $work/log ${*:2}"
    printf "GWAD_PROGRAM='%s'\nGWAD_HOME='%s'\nGWAD_OPTIONS='%s'\n" "$gwad" "$work/home" "$options" >"$work/settings"
}

"$build/gwrelay" --config /dev/null --drain 0 --manager-port 0 --control-port 0 --data-port 0 --front-port 0 \
    --admin-port 0 >"$work/ready" 2>"$work/relay.log" &
relay_pid=$!
wait_for grep -q ^ready "$work/ready"
manager=$(sed -n 's/.*manager=\([0-9]*\).*/\1/p' "$work/ready")
front=$(sed -n 's/.*front=\([0-9]*\).*/\1/p' "$work/ready")

[ -z "${GWAD_TEST_ISOLATED-}" ] || finds 1 "settings: .*cannot be read"
settings_write 127.0.0.1 -I box
finds 1 "process: gwad does not run"
# shellcheck disable=SC2086
"$gwad" -H "$work/home" $options 2>"$work/gwad.out" &
gwad_pid=$!
all_are_up() { [ "$(grep -c 'login remote server success' "$work/log")" = 6 ]; }
wait_for all_are_up

[ -z "${GWAD_TEST_ISOLATED-}" ] || (rm "$work/settings" && finds 0 "nothing is wrong here")
settings_write 127.0.0.1 -I box
finds 0 "nothing is wrong here" "$front"
grep -q "^ok *connections *1 to the control server, 5 for data" "$work/said"
finds 1 "connected, but services: nothing listens on 1 " "$front" 1
settings_write 127.0.0.1 -I box -i nosuch0
finds 1 "connected, but interface: there is no nosuch0"
settings_write nosuch.invalid -I box
finds 1 "connected, but name: no address for nosuch.invalid"
manager=$front settings_write 127.0.0.1 -I box
finds 1 "connected, but manager: 127.0.0.1:$front answers, but not as"
settings_write 127.0.0.1 -I box

# Stopped, so that it does not restart; what it had of the relay is gone. Then as if its login were refused.
kill -STOP "$gwad_pid"
kill -KILL "$relay_pid"
wait "$relay_pid" || true
finds 1 "manager: 127.0.0.1:$manager does not answer"
busybox httpd -f -p "127.0.0.1:$front" -h "$work" &
mkdir "$work/addrmgr"
printf '{"ret":0,"data":"127.0.0.1:%d"}' "$front" >"$work/addrmgr/device_get_proxy"
manager=$front settings_write 127.0.0.1 -I box
finds 1 "connections: none to the control server, whose port can be reached"
printf '{"ret":0,"data":"127.0.0.1:%d"}' 1 >"$work/addrmgr/device_get_proxy"
finds 1 "connections: the control server 127.0.0.1:1 cannot be reached"
echo "gwad-doctor has found every fault."
