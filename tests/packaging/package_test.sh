#!/bin/sh
# Makes the Debian package of a build, installs it into a scratch root and looks at what is there.
# With a build that runs on this machine it also starts and stops gwad by the installed init script.
#
#   package_test.sh BUILD_FOLDER ARCHITECTURE
set -eu
build=$1
architecture=$2

work=$(mktemp -d)
stop_gwad() { [ ! -e "$work/settings" ] || control stop; }
trap 'stop_gwad; rm -rf "$work"' EXIT
trap 'exit 1' INT TERM
root=$work/root
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates"
touch "$root/var/lib/dpkg/status"

fail() {
    echo "FAILED: $*" >&2
    exit 1
}

control() { GWAD_SETTINGS=$work/settings sh "$root/etc/init.d/gwadsh" "$@"; }
# expect STATUS COMMAND...
expect() {
    expected=$1 status=0
    shift
    "$@" >"$work/out" 2>&1 || status=$?
    [ "$status" = "$expected" ] || fail "$* ends with $status, not $expected: $(cat "$work/out")"
}

(cd "$build" && cpack -G DEB -B "$work/package") >"$work/cpack.log" || fail "$(cat "$work/cpack.log")"
package=$(echo "$work"/package/gwad_*_"$architecture".deb)
[ -e "$package" ] || fail "no package for $architecture: $(ls "$work/package")"

# dpkg sets owners, which only root can; another user can still unpack.
if [ "$(id -u)" = 0 ]; then
    dpkg="dpkg --root=$root --log=$work/dpkg.log --force-architecture --force-depends --force-script-chrootless"
    $dpkg -i "$package" >"$work/out" 2>&1 || fail "$(cat "$work/out")"
else
    dpkg-deb -x "$package" "$root"
fi

programs="usr/sbin/gwad etc/init.d/gwadsh"
[ ! -e "$build/gwad-announce" ] || programs="$programs usr/sbin/gwad-announce"
for file in $programs; do
    [ "$(stat -c %a "$root/$file")" = 755 ] || fail "$file: wrong mode or not there"
done
for file in etc/default/gwad usr/share/man/man8/gwad.8; do
    [ "$(stat -c %a "$root/$file")" = 644 ] || fail "$file: wrong mode or not there"
done
for file in $(dpkg-deb -c "$package" | sed -n 's/^-.* \.\///p'); do
    case " $programs etc/default/gwad usr/share/man/man8/gwad.8 " in
        *" $file "*) ;;
        *) fail "$file should not be in the package" ;;
    esac
done

for shell in sh "busybox sh"; do
    if command -v "${shell%% *}" >/dev/null; then
        expect 0 $shell -n "$root/etc/init.d/gwadsh"
        expect 0 $shell -n "$root/etc/default/gwad"
    fi
done
if command -v groff >/dev/null; then
    groff -ww -man -Tutf8 "$root/usr/share/man/man8/gwad.8" >/dev/null 2>"$work/out"
    [ ! -s "$work/out" ] || fail "the manual page: $(cat "$work/out")"
else
    echo "groff is not there: the manual page has not been checked"
fi

if "$root/usr/sbin/gwad" -v >/dev/null 2>&1 && [ "$architecture" = "$(dpkg --print-architecture)" ]; then
    cat >"$work/settings" <<SETTINGS
GWAD_PROGRAM=$root/usr/sbin/gwad
GWAD_HOME=$work/home
GWAD_OPTIONS="-r 127.0.0.1 -p 1 -i lo -I box-* -l $work/log"
SETTINGS
    pid_file=$work/home/tmp/gwad.pid
    expect 3 control status
    expect 0 control start
    expect 0 control start
    [ ! -s "$work/out" ] || fail "start is not quiet: $(cat "$work/out")"
    expect 0 control status
    grep -q "process [0-9]*$" "$work/out" || fail "not one process: $(cat "$work/out")"
    expect 0 control restart
    expect 0 control status
    kill -KILL "$(cat "$pid_file")"
    expect 3 control status
    printf %d $$ >"$pid_file" # somebody else has got the number
    expect 0 control start
    expect 0 control stop
    expect 0 control stop
    expect 3 control status
    expect 2 control
    [ "$(grep -c 'gwad start' "$work/log")" = 3 ] || fail "three starts were asked for: $(cat "$work/log")"
    rm "$root/usr/sbin/gwad"
    expect 5 control start
    echo "The init script has started and stopped gwad."
fi
