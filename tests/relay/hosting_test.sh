#!/bin/bash
# docs/hosting.md, line by line: its commands, with names, ports and a certificate of our own, lead to a
# box that is reached over TLS with a login; and so do the three proxies' configurations.
#
#   hosting_test.sh BUILD_FOLDER
set -eu
# shellcheck source=tests/support/script.sh
. "${0%/*}/../support/script.sh"
cd "$(dirname "$0")/../.."

build=$(realpath "$1")
etc=$work/etc
port=$((20000 + RANDOM % 10000))
PATH=$build:$PATH
for program in htpasswd openssl curl nginx; do
    command -v "$program" >/dev/null || { echo "there is no $program"; exit 77; }
done

# --- the document ---

# step NAME: the commands of that step, with our places in them.
step() {
    awk -v step="\`\`\`sh step=$1" '$0 == step { on = 1; next } /^```/ { on = 0 } on' docs/hosting.md |
        sed "s|/etc/gwrelay|$etc|g; s/\bsudo //g; s/ -g gwrelay//; s|/opt/gwad|$work/home|g
             s/0\.0\.0\.0/127.0.0.1/; s/^announce = .*/announce = '127.0.0.1'/
             s/= 443/= $port/; s/htpasswd -nB/htpasswd -nbB/; s/(htpasswd \(.*\))\"/(htpasswd \1 secret)\"/
             s|^gwrelay --check-config|gwrelay --config $etc/gwrelay.toml --check-config|
             s/-r relay.example.org -i br-lan\(.*\) -b/-r 127.0.0.1 -p \$MANAGER -i lo\1 -l \$HOME_OF_BOX.log/
             s/announce http 80/announce http \$WEB/"
}

# certificate FOLDER DAYS: one for both names, by ourselves.
certificate() {
    mkdir -p "$1"
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days "$2" \
        -subj /CN=relay.example.org -keyout "$1/privkey.pem" -out "$1/fullchain.pem" \
        -addext 'subjectAltName=DNS:relay.example.org,DNS:*.relay.example.org' 2>>"$work/openssl.log"
}

# run STEP: as whoever reads it would.
run() {
    step "$1" >"$work/step"
    [ -s "$work/step" ] || fail "docs/hosting.md has no step $1"
    # shellcheck source=/dev/null
    (set -eu; . "$work/step") >"$work/$1.out" 2>>"$work/steps.log" || fail "step $1 failed"
}

mkdir -p "$etc" "$work/home/tmp" "$work/home/etc" "$work/www"
export RENEWED_LINEAGE=$work/renewed HOME_OF_BOX=$work/home
certificate "$RENEWED_LINEAGE" 30
run certificate
run user
run box
run settings

# --- the programs ---

stop() {
    kill "$1"
    wait "$1" 2>/dev/null || true
}
start() {
    local name=$1
    shift
    "$@" >"$work/$name.out" 2>"$work/$name.log" &
    last=$!
}

# relay OPTION...: with the document's settings, and those.
relay() {
    : >"$work/ready"
    gwrelay --config "$etc/gwrelay.toml" --drain 0 --manager-port 0 --control-port 0 --data-port 0 \
        "$@" >"$work/ready" 2>>"$work/relay.log" &
    relay_pid=$!
    wait_for grep -q '^ready' "$work/ready"
    MANAGER=$(relay_port manager)
    export MANAGER
}

# A web server for the box, and later the first of the proxies.
web=$((port + 10000))
export WEB=$web
head -c 3000000 /dev/urandom >"$work/www/large"
echo "the cellar's page" >"$work/www/index.html"
nginx_start() {  # NAME SERVERS
    cat >"$work/$1.conf" <<CONF
daemon off; master_process off; pid $work/$1.pid; error_log $work/$1.log;
events { worker_connections 256; }
http { access_log off; client_body_temp_path $work/body; proxy_temp_path $work/proxy;
fastcgi_temp_path $work/fastcgi; uwsgi_temp_path $work/uwsgi; scgi_temp_path $work/scgi;
$2
}
CONF
    start "$1" nginx -p "$work" -e "$work/$1.log" -c "$work/$1.conf"
}
nginx_start web "server { listen 127.0.0.1:$web; root $work/www; }"

box_up() {
    ID=$(sed -n 's/^cellar //p' "$etc/boxes")
    export ID
    start box sh -c "exec $(step gwad)"
    box_pid=$last
    wait_for announced
}
announced() { (run announce) 2>/dev/null && [ "$(ask -u ann:secret "$site/" 2>/dev/null)" = "the cellar's page" ]; }

# ask ARGUMENT...: curl, for which our names lead to this machine.
ask() {
    curl -sS --max-time 30 --cacert "$RENEWED_LINEAGE/fullchain.pem" \
        --connect-to "::127.0.0.1:" "$@" 2>>"$work/curl.log"
}
code() { ask -o /dev/null -w '%{http_code}' "$@"; }
expect() {  # WHAT EXPECTED IS
    [ "$2" = "$3" ] || fail "$1: $3, not $2"
}

# checks NAME: what a user can do, over TLS at $port.
checks() {
    local top=https://relay.example.org:$port
    site=https://cellar.relay.example.org:$port
    box_up
    expect "$1: a stranger" 401 "$(code "$site/")"
    expect "$1: his browser" "$top/gwrelay.login?to=https%3A%2F%2Fcellar.relay.example.org%3A$port%2Fa" \
        "$(ask -o /dev/null -w '%{redirect_url}' -H 'Accept: text/html' "$site/a")"
    expect "$1: a login" 200 "$(code -c "$work/jar" -L -d "name=ann&password=secret&to=$site/" \
        "$top/gwrelay.login")"
    grep -q '^#HttpOnly_.relay.example.org.*TRUE.*gwrelay' "$work/jar" || fail "$1: no secure cookie"
    expect "$1: a session" "the cellar's page" "$(ask -b "$work/jar" "$site/")"
    expect "$1: the list" 200 "$(code -b "$work/jar" "$top/status.json")"
    ask -b "$work/jar" "$site/large" | cmp - "$work/www/large" || fail "$1: another file"
    expect "$1: what is not there" 403 \
        "$(code -b "$work/jar" -X POST -H 'Origin: https://evil.example' "$site/")"
    stop "$box_pid"
}

relay
checks "gwrelay itself"
step look >"$work/step"
expect "the document's curl" "curl -u ann https://cellar.relay.example.org/" "$(cat "$work/step")"

# A new certificate is there without a restart; what is none changes nothing.
echo rubbish >"$etc/tls/fullchain.pem"
expect "with rubbish" 200 "$(code "https://relay.example.org:$port/healthz")"
RENEWED_LINEAGE=$work/again
certificate "$RENEWED_LINEAGE" 5
run certificate
is_new() { [ "$(code "https://relay.example.org:$port/healthz")" = 200 ]; }
wait_for is_new

# --- behind proxies ---

stop "$relay_pid"
sed -i '/^tls-/d; s/^listen-users.*/trusted-proxy = "127.0.0.1"/; /^front-port/d' "$etc/gwrelay.toml"
relay --front-port 0
front=$(relay_port front)
cat "$RENEWED_LINEAGE/fullchain.pem" "$RENEWED_LINEAGE/privkey.pem" >"$etc/tls/relay.pem"

# proxied FILE: the configuration that we hand out, with our places and ports.
proxied() {
    sed "s|/etc/gwrelay|$etc|g; s/127\.0\.0\.1:8080/127.0.0.1:$front/
         s/\b443\b/$port/; s/\(listen\|bind\) \(\[::\]:\|:\)\{0,1\}80\b/\1 \2$((port + 1))/" \
        "packaging/gwrelay/$1"
}
is_answered() { [ "$(code "https://relay.example.org:$port/healthz")" = 200 ]; }
behind() {  # NAME
    local proxy_pid=$last
    wait_for is_answered
    checks "$1"
    stop "$proxy_pid"
    echo "$1: fine"
}

nginx_start nginx "$(proxied nginx.conf)"
behind nginx
if command -v haproxy >/dev/null; then
    proxied haproxy.cfg >"$work/haproxy.cfg"
    start haproxy haproxy -db -f "$work/haproxy.cfg"
    behind haproxy
fi
if command -v caddy >/dev/null; then
    { printf '{\nadmin off\nhttp_port %s\nhttps_port %s\nauto_https disable_redirects\n}\n' \
        $((port + 1)) "$port"; proxied Caddyfile; } >"$work/Caddyfile"
    XDG_DATA_HOME=$work XDG_CONFIG_HOME=$work start caddy caddy run --config "$work/Caddyfile" \
        --adapter caddyfile
    behind caddy
fi
