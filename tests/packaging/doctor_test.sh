#!/bin/bash
# gwad-doctor finds each of several faults of a real gwad and its relay, and nothing where all is well;
# also with busybox and nothing else. Without settings any gwad is looked at, so only on a machine of its own.
#
#   doctor_test.sh BUILD_FOLDER
set -eu
# shellcheck source=tests/support/script.sh
. "${0%/*}/../support/script.sh"
build=$1
gwad=$build/gwad
mkdir -p "$work/home/tmp" "$work/tools"
busybox --install -s "$work/tools"
id=5c1e0f0fb6d24d0a
echo "box $id" >"$work/boxes"
# The nc of a small busybox has no -w: at port 1 it is ended while it waits.
rm "$work/tools/nc"
cat >"$work/tools/nc" <<SH
#!/bin/sh
case "\$*" in -*) exit 1 ;; *" 1") kill \$\$ ;; esac
exec $(command -v busybox) nc "\$@"
SH
# An old one's answer; an address of IPv6 is none for gwad.
rm "$work/tools/nslookup"
cat >"$work/tools/nslookup" <<'SH'
#!/bin/sh
printf 'Server:    127.0.0.1\nAddress 1: 127.0.0.1\n\nName:      %s\nAddress 1: 2606:2800::1\n' "$1"
SH
chmod 755 "$work/tools/nc" "$work/tools/nslookup"

# finds STATUS TEXT [PORT...]: ten lines, the last of which has the text.
finds() {
    local expected=$1 text=$2 path status
    shift 2
    for path in "$PATH" "$work/tools"; do
        status=0
        PATH=$path GWAD_SETTINGS=$work/settings sh "$build/packaging/gwad-doctor" "$@" >"$work/said" 2>&1 || status=$?
        if [ "$status" != "$expected" ] || [ "$(wc -l <"$work/said")" != 10 ] ||
            ! tail -n 1 "$work/said" | grep -q "verdict *$text"; then
            fail "with $path: status $status instead of $expected, or not '$text' after nine lines: $(cat "$work/said")"
        fi
    done
}

# settings_write RELAY [OPTION...]
settings_write() {
    options="-p $manager -i lo -V 7 -l $work/log ${*:2}"
    printf "GWAD_PROGRAM='%s'\nGWAD_HOME='%s'\nGWAD_RELAY='%s'\nGWAD_OPTIONS='%s'\n" \
        "$gwad" "$work/home" "$1" "$options" >"$work/settings"
}

relay_start "$build/gwrelay" 0 --admin-port 0 --boxes-file "$work/boxes"

[ -z "${GWAD_TEST_ISOLATED-}" ] || finds 1 "settings: .*cannot be read"
settings_write 127.0.0.1 -I "$id"
finds 1 "process: gwad does not run"
# shellcheck disable=SC2086
"$gwad" -H "$work/home" -r 127.0.0.1 $options 2>"$work/gwad.out" &
gwad_pid=$!
all_are_up() { [ "$(grep -c 'login remote server success' "$work/log")" = 6 ]; }
wait_for all_are_up

[ -z "${GWAD_TEST_ISOLATED-}" ] || (rm "$work/settings" && finds 0 "nothing is wrong here")
settings_write 127.0.0.1 -I "$id"
finds 0 "nothing is wrong here" "$front"
grep -q "^ok *connections *1 to the control server, 5 for data" "$work/said"
finds 1 "connected, but services: nothing listens on 1 " "$front" 1
settings_write 127.0.0.1 -I "$id" -L 127.0.0.2
finds 1 "connected, but services: nothing listens on $front of 127.0.0.2" "$front"
settings_write 127.0.0.1 # the relay does not know who asks
finds 0 "nothing is wrong here" "$front"
grep -q "^note *manager" "$work/said"
settings_write 127.0.0.1 -I "$id" -i nosuch0
finds 1 "connected, but interface: there is no nosuch0"
settings_write nosuch.invalid -I "$id"
finds 1 "connected, but name: no address for nosuch.invalid"
manager=$front settings_write 127.0.0.1 -I "$id"
finds 1 "connected, but manager: 127.0.0.1:$front answers, but not as"
settings_write 127.0.0.1 -I "$id"

# Stopped, so that it does not restart; what it had of the relay is gone. Then as if its login were refused.
kill -STOP "$gwad_pid"
kill -KILL "$relay_pid"
wait "$relay_pid" || true
finds 1 "manager: 127.0.0.1:$manager does not answer"
busybox httpd -f -p "127.0.0.1:$front" -h "$work" &
wait_for curl -s -o "$work/none" "127.0.0.1:$front"
mkdir "$work/addrmgr"
printf '{"ret":0,"data":"127.0.0.1:%d"}' "$front" >"$work/addrmgr/device_get_proxy"
manager=$front settings_write 127.0.0.1 -I "$id"
finds 1 "connections: none to the control server, whose port can be reached"
printf '{"ret":0,"data":"127.0.0.1:%d"}' 1 >"$work/addrmgr/device_get_proxy"
finds 1 "connections: the control server 127.0.0.1:1 cannot be reached"
echo "gwad-doctor has found every fault."
