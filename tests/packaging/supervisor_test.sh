#!/bin/bash
# gwad held in the foreground by supervisors that start it again: after a restart each has one gwad, which
# has been started once more and not twice. busybox's init is the real one, procd is played: by a loop that
# runs what the init script has given it.
#
#   supervisor_test.sh BUILD_FOLDER
set -eu
# shellcheck source=tests/support/script.sh
. "${0%/*}/../support/script.sh"
if [ -z "${GWAD_TEST_ISOLATED-}" ] || ! unshare --fork --pid --mount-proc true 2>/dev/null; then
    echo "This machine gives no process 1 of its own: nothing has been tried."
    exit 77
fi
cd "${0%/*}/../.."
build=$1
gwad=$build/gwad

# settings_write FOLDER [OPTION...]
settings_write() {
    mkdir -p "$1"
    printf "GWAD_PROGRAM='%s'\nGWAD_HOME='%s'\nGWAD_OPTIONS='%s'\n" "$gwad" "$1" "${*:2}" >"$1/settings"
}

# --- gwad-run alone, with a clock and a logger that are played ---

settings_write "$work/run" "-b -i nosuch0 -I box"
echo GWAD_SYSLOG=yes >>"$work/run/settings"
mkdir "$work/bin"
# shellcheck disable=SC2016
printf '#!/bin/sh\necho "$1" >>"%s/slept"\n' "$work" >"$work/bin/sleep"
printf '#!/bin/sh\ncat >>"%s/messages"\necho ended >>"%s/messages"\n' "$work" "$work" >"$work/bin/logger"
chmod 755 "$work"/bin/*
touch "$work/slept"
# runs SECONDS: after a pause of at least so many, or none.
runs() {
    rm -f "$work/messages"
    PATH=$work/bin:$PATH GWAD_SETTINGS=$work/run/settings busybox sh "$build/packaging/gwad-run" && fail "gwad is in the background"
    [ "$(tail -n 1 "$work/slept")" -ge "$1" ] 2>/dev/null || [ ! -s "$work/slept" ] || fail "pauses: $(cat "$work/slept")"
    wait_for grep -q ended "$work/messages"
    grep -q 'get mac failed' "$work/messages" || fail "no reason in syslog: $(cat "$work/messages")"
}
runs 0
[ ! -s "$work/slept" ] || fail "the first start pauses"
runs 8
[ -s "$work/slept" ] || fail "starts that fail follow each other at once"
: >"$work/slept"
echo 999999999 >"$work/run/theirs" # of an earlier boot, by a link that another user may have put there
ln -sf "$work/run/theirs" "$work/run/tmp/gwad.started"
runs 0
[ "$(cat "$work/run/theirs")" = 999999999 ] || fail "gwad-run writes through a link"
[ ! -s "$work/slept" ] || fail "a start pauses because of an earlier boot"
echo "GWAD_HOME=$work/none" >>"$work/run/settings"
status=0
PATH=$work/bin:$PATH GWAD_SETTINGS=$work/run/settings busybox sh "$build/packaging/gwad-run" 2>/dev/null || status=$?
[ "$status $(cat "$work/slept")" = "6 10" ] || fail "without its home it ends with $status, and pauses: $(cat "$work/slept")"
[ ! -e "$work/none" ] || fail "a home has been made"

# --- a restart under both ---

relay_start "$build/gwrelay" 0 --admin-port 0
mount -t tmpfs none /etc # nobody else sees it
mkdir /etc/init.d /etc/default
cp packaging/gwad-restart /etc/init.d/gwadsh # where the build at hand looks for it
settings_write "$work/init" "-p $manager -i lo -I init-box -V 3 -l $work/init/log"
echo GWAD_RELAY=127.0.0.1 | cat "$work/init/settings" - >/etc/default/gwad
echo "null::respawn:/bin/sh $build/packaging/gwad-run" >/etc/inittab
unshare --fork --kill-child --pid --mount-proc busybox init >/dev/null 2>&1 &

# At level 1 the logins show.
command=$(CONFIG=packaging/openwrt/files/gwad.config SETTINGS="home=$work/procd log=$work/procd/log interface=lo
    id=procd-box relay=127.0.0.1 port=$manager" sh tests/packaging/trees/rc.common "$PWD/packaging/openwrt/files/gwad.init")
procd_plays() {
    # shellcheck disable=SC2086
    while :; do
        "$gwad" ${command#* } || true
        sleep 2
    done
}
procd_plays &

# count TEXT N: each log has it so often.
count() {
    local log
    for log in "$work"/init/log "$work"/procd/log; do
        [ "$(grep -c "$1" "$log" 2>/dev/null)" = "$2" ] || return 1
    done
}
wait_for count 'login remote server success' 6
kill -KILL "$relay_pid"
wait "$relay_pid" 2>/dev/null || true
relay_start "$build/gwrelay" "$manager" --admin-port 0
wait_for count 'login remote server success' 12

sleep 2.5 # a process that starts gwad beside the supervisor would have done so by now
count 'gwad start' 2 || fail "each gwad restarts once"
parents=$(for process in /proc/[0-9]*; do
    [ "$(readlink "$process/exe")" != "$gwad" ] || cat "/proc/$(sed -n 's/^PPid:\t//p' "$process/status")/comm"
done 2>/dev/null | sort | tr '\n' ' ')
[ "$parents" = "busybox supervisor_test " ] || fail "gwads are the children of: $parents"
echo "Two supervisors have one gwad each."
