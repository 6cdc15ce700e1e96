#!/bin/bash
# The box behind a tunnel, and with no rights: gwad runs as a user of its own without any capability,
# and reaches the relay through stunnel on both ends, which know each other by their certificates.
#
#   tunnel_test.sh GWAD GWRELAY
#
# The relay is 127.0.0.1, the box's end of the tunnel 127.0.0.2, the relay's end 127.0.0.3; the same
# three ports are used on each.
set -eu
# shellcheck source=tests/support/script.sh
. "${0%/*}/../support/script.sh"
gwad=$1 gwrelay=$2

# Nobody's number where we are root in earnest, else ours; never a capability, nor a way to get one.
own_user=()
if [ "$(id -u)" = 0 ] && ! grep -q '^ *0 .* 1$' /proc/self/uid_map; then
    own_user=(--reuid=65534 --regid=65534 --clear-groups)
fi
without_rights() {
    exec setpriv "${own_user[@]}" --no-new-privs --inh-caps=-all --bounding-set=-all "$@"
}
[ "$(id -u)" = 0 ] || without_rights() { exec setpriv --no-new-privs "$@"; }

certificate() {
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj "/CN=$1" \
        -keyout "$work/$1.key" -out "$work/$1.crt" 2>"$work/openssl.log"
}

# tunnel NAME OWN PEER ACCEPT CONNECT [OPTION]: one end, for all ports of the relay.
tunnel() {
    local name=$1 own=$2 peer=$3 accept=$4 connect=$5 port
    {
        printf '%s\n' "foreground = yes" "pid =" "cert = $work/$own.crt" "key = $work/$own.key" \
            "CAfile = $work/$peer.crt" "verifyPeer = yes" "${6-}"
        for port in $manager $control $data; do
            printf '[%s]\naccept = %s:%s\nconnect = %s:%s\n' "$port" "$accept" "$port" "$connect" "$port"
        done
    } >"$work/$name.conf"
    stunnel4 "$work/$name.conf" 2>"$work/$name.log" &
    wait_for grep -q "Configuration successful" "$work/$name.log"
}

mkdir -p "$work/home/tmp" "$work/www"
chmod 755 "$work"
head -c 1000000 /dev/urandom >"$work/www/file"
[ ${#own_user[@]} -eq 0 ] || chown -R 65534:65534 "$work/home"
certificate relay
certificate box
certificate stranger

relay_start "$gwrelay" 0 --announce 127.0.0.2
tunnel relay-end relay box 127.0.0.3 127.0.0.1
tunnel box-end box relay 127.0.0.2 127.0.0.3 "client = yes"
tunnel strange-end stranger relay 127.0.0.4 127.0.0.3 "client = yes"

web=$((20000 + RANDOM % 10000))
busybox httpd -f -p "127.0.0.1:$web" -h "$work/www" &
(umask 0 && without_rights "$gwad" -r 127.0.0.2 -p "$manager" -i lo -I box -H "$work/home" \
    -l "$work/home/log" -V 7) >"$work/gwad.log" 2>&1 &
gwad_pid=$!

page() { curl -s --max-time 5 "http://127.0.0.1:$front/box/$web/file" | cmp -s - "$work/www/file"; }
wait_for page
curl -s --max-time 5 "http://127.0.0.4:$manager/addrmgr/device_get_proxy?devid=box" | grep -q proxy &&
    fail "a stranger's certificate opens the tunnel"

grep -q '^CapEff:[[:space:]]0*$' "/proc/$gwad_pid/status" || fail "gwad has capabilities"
[ "$(stat -c %u "/proc/$gwad_pid")" != 0 ] || [ ${#own_user[@]} -eq 0 ] || fail "gwad is root"
peers=$(sed -n 's/.*: [0-9A-F:]* \([0-9A-F]*\):[0-9A-F]* 01 .*/\1/p' "/proc/$gwad_pid/net/tcp" | sort -u)
[[ $peers = *0200007F* ]] || fail "gwad has no connection to its end of the tunnel: $peers"

wait_for [ -s "$work/home/tmp/session.id" ]
wait_for [ -S "$work/home/tmp/dlna.sock" ]
# Nobody else may write, although the mask would let everybody.
modes=$(cd "$work/home" && stat -c '%a %n' log tmp/gwad.pid tmp/session.id tmp/dlna.sock)
[ "$modes" = "640 log
644 tmp/gwad.pid
644 tmp/session.id
660 tmp/dlna.sock" ] || fail "other modes than expected: $modes"

kill "$gwad_pid"
wait "$gwad_pid" || fail "gwad ends with $?"
echo "A page has come through the tunnel, from a gwad without rights."
