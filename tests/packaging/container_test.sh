#!/bin/bash
# Makes the container that packaging/gwrelay/Containerfile describes, on a scratch root of Debian, and runs
# what is in it. Run as root.
#
#   container_test.sh ROOT_TAR APT_CONF PACKAGES
set -eu
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
trap 'exit 1' INT TERM
export BUILDAH_ISOLATION=chroot STORAGE_DRIVER=vfs
builder() { buildah --root "$work/store" --runroot "$work/run" "$@"; }
fail() {
    echo "FAILED: $*" >&2
    exit 1
}

base=$(builder from scratch)
builder add --quiet "$base" "$1" /
builder commit --quiet "$base" localhost/base >/dev/null
builder build --quiet --pull-never --build-arg BASE=localhost/base --file packaging/gwrelay/Containerfile \
    --volume "$(realpath "$2"):/etc/apt/apt.conf.d/90machine:ro" --tag localhost/gwrelay "$3" >"$work/build.log" 2>&1 ||
    fail "it cannot be built: $(tail -n 5 "$work/build.log")"
in_it=$(builder from --pull-never localhost/gwrelay)
inside() { builder run "$in_it" -- "$@"; }

[ "$(builder inspect --format '{{.OCIv1.Config.Entrypoint}} {{.OCIv1.Config.User}}' "$in_it")" = \
    "[/usr/sbin/gwrelay] gwrelay" ] || fail "another program or user"
[ "$(inside id -un)" = gwrelay ] || fail "another user"
inside test -w /var/log/gwrelay || fail "there is no place for the access log"
inside /usr/sbin/gwrelay --check-config || fail "its own settings"
said=$(inside /usr/sbin/gwrelay --listen 0.0.0.0 --announce relay.example.org 2>&1) && fail "strangers may come in"
case $said in *--users-file* | *--boxes-file*) ;; *) fail "it said: $said" ;; esac
# shellcheck disable=SC2016 # the inner shell's
said=$(inside sh -c '/usr/sbin/gwrelay --manager-port 0 --control-port 0 --data-port 0 --front-port 0 >/tmp/out & relay=$!
    for i in $(seq 600); do ! grep -q ^ready /tmp/out || break; sleep 0.1; done
    kill -TERM $relay && wait $relay && cat /tmp/out' 2>"$work/relay.log") || fail "it does not run: $(cat "$work/relay.log")"
case $said in "ready manager="*) ;; *) fail "it said: $said" ;; esac
echo "The container does as it should."
