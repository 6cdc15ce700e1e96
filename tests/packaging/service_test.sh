#!/bin/sh
# The settings that gwrelay comes with make sense, all of them switched on, and so does its unit.
#
#   service_test.sh BUILD_FOLDER
set -eu
build=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

sed "s/^#\([a-z]\)/\1/; /^tls-/d; s|/etc/gwrelay|$work|" \
    packaging/gwrelay/gwrelay.toml >"$work/gwrelay.toml"
echo "box 5c1e0f0fb6d24d0a" >"$work/boxes"
echo 'ann:*:*' >"$work/users"
grep -q '^announce = ' "$work/gwrelay.toml"
"$build/gwrelay" --config "$work/gwrelay.toml" --check-config

command -v systemd-analyze >/dev/null || exit 0
# With the program of this build; the user comes with the package.
sed "s|/usr/sbin/gwrelay|$build/gwrelay|; /^User=/d" \
    packaging/gwrelay/gwrelay.service >"$work/gwrelay.service"
systemd-analyze verify --man=no "$work/gwrelay.service" 2>"$work/said" || true
if grep 'gwrelay.service' "$work/said"; then
    exit 1
fi
