#!/bin/sh
# Makes the Debian package of a build, unpacks it into a scratch root and looks at what is there. With a
# build that runs on this machine it also starts and stops gwad by the init script in it. What dpkg makes
# of the package, scripts/package --check looks at.
#
#   package_test.sh BUILD_FOLDER ARCHITECTURE
set -eu
build=$1
architecture=$2

work=$(mktemp -d)
run=$work # what the output of a command goes to
trap 'rm -rf "$work"' EXIT
trap 'exit 1' INT TERM
root=$work/root
fail() {
    echo "FAILED: $*" >&2
    exit 1
}

# expect STATUS COMMAND...
expect() {
    expected=$1 status=0
    shift
    "$@" >"$run/out" 2>&1 || status=$?
    [ "$status" = "$expected" ] || fail "$* ends with $status, not $expected: $(cat "$run/out")"
}

(cd "$build" && cpack -G DEB -D CPACK_COMPONENTS_ALL=gwad -B "$work/package") >"$work/cpack.log" 2>&1 || fail "$(cat "$work/cpack.log")"
package=$(echo "$work"/package/gwad_*_"$architecture".deb)
[ -e "$package" ] || fail "no package for $architecture: $(ls "$work/package")"

dpkg-deb -x "$package" "$root"

[ ! -e "$build/gwad-announce" ] || announce="
-rwxr-xr-x root/root usr/bin/gwad-announce" announce_page="
-rw-r--r-- root/root usr/share/man/man1/gwad-announce.1.gz"
files=$(dpkg-deb -c "$package" | sed -n 's/^\([-l][^ ]* [^ ]*\) .* \.\//\1 /p' | sort -k 3)
[ "$files" = "-rw-r--r-- root/root etc/default/gwad
-rwxr-xr-x root/root etc/init.d/gwadsh
-rw-r--r-- root/root etc/logrotate.d/gwad
-rw-r--r-- root/root lib/systemd/system/gwadsh.service${announce-}
-rwxr-xr-x root/root usr/sbin/gwad
-rwxr-xr-x root/root usr/sbin/gwad-doctor
-rw-r--r-- root/root usr/share/doc/gwad/changelog.Debian.gz
-rw-r--r-- root/root usr/share/doc/gwad/changelog.gz
-rw-r--r-- root/root usr/share/doc/gwad/copyright
-rw-r--r-- root/root usr/share/lintian/overrides/gwad${announce_page-}
-rw-r--r-- root/root usr/share/man/man8/gwad-doctor.8.gz
-rw-r--r-- root/root usr/share/man/man8/gwad.8.gz" ] || fail "other files than expected: $files"

expect 0 sh -n "$root/etc/default/gwad"
if command -v groff >/dev/null; then
    for page in "$root"/usr/share/man/man*/*.gz; do
        zcat "$page" | groff -ww -man -Tutf8 >/dev/null 2>"$work/out"
        [ ! -s "$work/out" ] || fail "$page: $(cat "$work/out")"
    done
fi

version=$(dpkg-deb -f "$package" Version)
version=${version%-*} # the package's own number comes behind it
zcat "$root/usr/share/man/man8/gwad.8.gz" | grep -q "^\.TH GWAD 8 \"\" \"gwad $version\" " ||
    fail "the manual page is of another version than the package, $version"

if ! "$root/usr/sbin/gwad" -v >"$work/out" 2>&1 || [ "$architecture" != "$(dpkg --print-architecture)" ]; then
    exit 0
fi
grep -q "^version : $version, git commit : " "$work/out" ||
    fail "the program is of another version than the package, $version: $(cat "$work/out")"

# --- the init script ---
#
# Each shell has a home, settings and a log of its own, under $run.

control() { PATH=$tools GWAD_SETTINGS=$run/settings "$script" "$@"; }

# script_make SHELL NAME: the script as others see it, a process of its own name.
script_make() {
    script=$run/init/$2
    mkdir -p "$run/init"
    sed "1s|.*|#!$1|; s/has_name gwadsh/has_name $2/" "$root/etc/init.d/gwadsh" >"$script"
    chmod 755 "$script"
}

# settings_write HOME [OPTION...]
settings_write() {
    printf 'GWAD_PROGRAM=%s\nGWAD_HOME="%s"\nfstab=%s\n' "$run/gwad" "$1" "$run/fstab"
    shift
    echo "GWAD_OPTIONS=\"-r 127.0.0.1 -p 1 -i lo -I box-* -V 3 -l $run/log $*\""
}

# The processes of our gwad, whoever thinks of them what.
processes() {
    for process in /proc/[0-9]*; do
        case $(readlink "$process/exe") in "$run/gwad"*) echo "${process#/proc/}" ;; esac
    done 2>/dev/null
}

kill_all() {
    for process in $(processes); do
        kill -KILL "$process" 2>/dev/null || true
    done
    while [ -n "$(processes)" ]; do sleep 0.05; done
}

starts_in_log() { grep -c 'gwad start' "$run/log" || true; }

# Waits until what is slow has begun.
slow_has_begun() {
    until [ -s "$run/begun" ]; do sleep 0.05; done
}

# controls STATUS:COMMAND...
controls() {
    for step; do
        expect "${step%:*}" control "${step#*:}"
    done
}

starts_and_stops() {
    controls 3:status 0:start 0:start
    [ ! -s "$run/out" ] || fail "start is not quiet: $(cat "$run/out")"
    controls 0:status
    grep -q "process [0-9]*$" "$run/out" || fail "not one process: $(cat "$run/out")"
    controls 0:restart 0:status
    kill_all
    controls 1:status 0:try-restart 1:status
    printf %d $$ >"$home/tmp/gwad.pid" # somebody else has got the number
    controls 0:start 0:force-reload 0:stop 0:stop 3:status 0:try-restart 3:status 3:reload 2:what
    [ "$(starts_in_log)" = 4 ] || fail "four starts were asked for: $(starts_in_log)"
}

# Through gwad itself: with its end the session hangs up. To the new gwad a hangup means what it did.
restarts_in_spite_of_a_hangup() {
    mkdir "$run/hangup"
    # shellcheck disable=SC2016
    printf '#!/bin/sh\nkill -HUP $PPID\nPATH=%s exec rm "$@"\n' "$tools" >"$run/hangup/rm"
    chmod 755 "$run/hangup/rm"
    controls 0:start
    (tools=$run/hangup:$tools controls 0:restart 0:try-restart)
    grep -q '^SigIgn.*[02468ace]$' "/proc/$(processes)/status" || fail "a gwad that was restarted ignores hangups"
    kill_all
}

# A program of the same name and arguments that is not ours, the one that the pid file names included.
leaves_others_alone() {
    mkdir "$run/other"
    cp "$(command -v sleep)" "$run/other/gwad"
    sh -c 'exec "$1" 60' sh "$run/other/gwad" &
    other=$!
    until [ "$(cat "/proc/$other/comm")" = gwad ]; do sleep 0.05; done
    printf %d "$other" >"$home/tmp/gwad.pid"
    controls 1:status 0:stop
    kill "$other" || fail "another program named gwad has been stopped"
}

# A supervisor runs gwad in the foreground, in place of one in the background and of one that is about to
# start itself; a start beside it is content, and a program that was replaced is still stopped.
runs_in_the_foreground() {
    controls 0:start
    PATH=$tools GWAD_SETTINGS=$run/settings "$script" run >"$run/held" 2>&1 &
    held=$!
    tries=200
    until [ "$(processes)" = "$held" ]; do
        tries=$((tries - 1))
        [ $tries -gt 0 ] || fail "run leaves '$(processes)', not $held: $(cat "$run/held")"
        sleep 0.05
    done
    controls 0:status 0:start
    grep -q . "$run/out" && fail "start beside run: $(cat "$run/out")"
    [ "$(processes)" = "$held" ] || fail "a start beside run has left: $(processes)"
    cp "$run/gwad" "$run/new"
    mv "$run/new" "$run/gwad"
    controls 0:stop 3:status
    wait "$held" || fail "gwad in the foreground ends with $?"
}

many_starts_leave_one() {
    before=$(starts_in_log) starts=
    for _ in 1 2 3 4 5 6 7 8; do
        control start 2>>"$run/out" &
        starts="$starts $!"
    done
    for start in $starts; do
        wait "$start" || fail "one start of many: $(cat "$run/out")"
    done
    [ $(($(starts_in_log) - before)) = 1 ] || fail "many starts at once have run more than one gwad"
    kill_all
}

# The start removes the old pid file right before it runs gwad; here that takes a while.
slow_start() {
    mkdir -p "$run/slow"
    cat >"$run/slow/rm" <<RM
#!/bin/sh
echo \$PPID >"$run/begun"
sleep 0.4
[ ! -d /proc/\$PPID ] || PATH=$tools exec rm "\$@"
RM
    chmod 755 "$run/slow/rm"
    rm -f "$run/begun"
    (tools=$run/slow:$tools control start) 2>/dev/null &
    slow_has_begun
}

stop_waits_for_a_start() {
    slow_start
    expect 0 control stop
    [ -z "$(processes)" ] || fail "a start that was under way has outlived the stop"
    wait $! || fail "the start was not let end before the stop"
}

# As gwad does when it restarts, and before the script has got as far as to show itself to others.
stop_sees_a_start_that_has_just_begun() {
    (cat "$run/settings" && echo "echo >'$run/begun'; sleep 0.4") >"$run/slow-settings"
    rm -f "$run/begun"
    GWAD_SETTINGS=$run/slow-settings "$script" start <&- >&- 2>&- &
    slow_has_begun
    expect 0 control stop
    wait $! || fail "a start without any open descriptor fails"
    [ -z "$(processes)" ] || fail "a start that had just begun has outlived the stop"
}

a_killed_start_leaves_nothing_locked() {
    slow_start
    kill -KILL "$(cat "$run/begun")"
    wait $! 2>/dev/null && fail "the start has not been killed"
    expect 0 control start
    [ "$(processes | wc -w)" = 1 ] || fail "not one gwad"
    kill_all
    rmdir "$home"/tmp/gwadsh.* 2>/dev/null && fail "a ticket has been left"
    true
}

# start_fails STATUS HOME OPTIONS TEXT: at once, and says why.
start_fails() {
    cp "$run/settings" "$run/good"
    settings_write "$2" "$3" >"$run/settings"
    expect "$1" control start
    shift
    grep -q "$3" "$run/out" || fail "start with '$2' does not say '$3': $(cat "$run/out")"
    cp "$run/good" "$run/settings"
    [ -z "$(processes)" ] || fail "a start with '$2' that failed has left a gwad"
}

# With a stand-in for logger, which ends by itself when gwad does.
log_goes_to_syslog() {
    mkdir -p "$run/syslog"
    printf '#!/bin/sh\nPATH=%s\ncat >>"%s/messages"\necho ended >>"%s/messages"\n' "$PATH" "$run" "$run" \
        >"$run/syslog/logger"
    chmod 755 "$run/syslog/logger"
    cp "$run/settings" "$run/good"
    echo GWAD_SYSLOG=yes >>"$run/settings"
    tools=$run/syslog:$tools
    controls 0:start 0:status
    control run >"$run/held" 2>&1 &
    held=$!
    until [ "$(grep -c 'gwad start' "$run/messages")" = 2 ]; do sleep 0.05; done
    controls 0:status 0:stop
    wait "$held" || fail "gwad in the foreground ends with $?: $(cat "$run/held")"
    until [ "$(grep -c ended "$run/messages")" = 2 ]; do sleep 0.05; done
    settings_write "$home" "-i nosuch0" >"$run/settings"
    echo GWAD_SYSLOG=yes >>"$run/settings"
    rm "$run/messages"
    expect 1 control start
    until grep -q ended "$run/messages"; do sleep 0.05; done
    grep -q 'get mac failed' "$run/messages" || fail "no reason in syslog: $(cat "$run/messages")"
    tools=${tools#*:}
    cp "$run/good" "$run/settings"
}

# By logrotate itself, which gwad is not told of.
log_is_rotated() {
    sed "s|^/tmp/gwad.log|$run/log|; s|su root root|su $(id -un) $(id -gn)|" "$root/etc/logrotate.d/gwad" >"$run/rotate"
    controls 0:start
    sleep 1.1 # gwad looks for its log once a second
    PATH=$PATH:/usr/sbin logrotate -f -s "$run/rotated" "$run/rotate" >"$run/out" 2>&1 ||
        fail "logrotate: $(cat "$run/out")"
    [ ! -s "$run/log" ] || fail "the log has not been moved away"
    controls 0:stop
    [ -s "$run/log" ] || fail "gwad has gone on with the old log: $(cat "$run/log.1")"
}

# init_script_holds FOLDER SHELL NAME TOOLS: with a script of that name.
init_script_holds() {
    run=$work/$1 tools=$4
    trap 'wait; kill_all' EXIT
    home="$run/the 2% home"
    mkdir -p "$home"
    cp "$root/usr/sbin/gwad" "$run/gwad"
    script_make "$2" "$3"
    echo "# $home" >"$run/fstab"
    settings_write "$home" >"$run/settings"
    starts_and_stops
    restarts_in_spite_of_a_hangup
    leaves_others_alone
    runs_in_the_foreground
    many_starts_leave_one
    stop_waits_for_a_start
    stop_sees_a_start_that_has_just_begun
    a_killed_start_leaves_nothing_locked
    start_fails 1 "$home" "-i nosuch0" "get mac failed"
    start_fails 1 "$home" "-V 9" "exit from func log_start"
    start_fails 1 "$home" "-l $run/none/log" "nothing to $run/none/log"
    start_fails 1 "$home" "-Z" "getopt returned"
    start_fails 6 "$run/none" "" "no directory that is there"
    [ ! -e "$run/none" ] || fail "a home has been made"
    printf '%s' "disk $run/the\\0402%\\040home/ ext4" >"$run/fstab"
    start_fails 6 "$home" "" "home is not mounted"
    : >"$run/fstab"
    log_goes_to_syslog
}

(init_script_holds sh "$(command -v sh)" gwadsh "$PATH") &
runs=$!
if command -v busybox >/dev/null; then
    mkdir "$work/tools"
    for tool in sh mkdir mkfifo rmdir rm tr sleep readlink tail; do
        ln -s "$(command -v busybox)" "$work/tools/$tool"
    done
    (init_script_holds busybox "$work/tools/sh" gwad "$work/tools") &
    runs="$runs $!"
else
    echo "busybox is not there: the init script has been tried with sh alone"
fi
failed=0
for run in $runs; do
    wait "$run" || failed=1
done
[ $failed = 0 ] || exit 1
run=$work/sh tools=$PATH script=$work/sh/init/gwadsh
home="$run/the 2% home"
if PATH=$PATH:/usr/sbin command -v logrotate >/dev/null; then
    settings_write "$home" "-V 7" >"$run/settings"
    (trap kill_all EXIT && log_is_rotated) || exit 1
else
    echo "logrotate is not there: its settings have not been tried"
fi
rm "$run/gwad"
expect 5 control start
echo "The init script has started and stopped gwad."
