# shellcheck shell=bash
# lib.sh - what the scripts share: messages, the packages that they need, builds, waiting.
# Sourced by scripts that run with `set -eu` in the repository's root.

# say LINE...
say() {
    printf '%s\n' "$@"
}

die() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

# usage STATUS [FILE]: prints the comment at the script's head and ends; on standard error unless the
# status is 0, which is for those who have asked.
usage() {
    [ "$1" -eq 0 ] || exec >&2
    sed -n '2,/^set -eu/{s/^# \{0,1\}//p}' "${2:-scripts/${0##*/}}"
    exit "$1"
}

# Runs a command as root: directly, or through sudo, which may ask for the user's password.
as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    else
        sudo "$@"
    fi
}

# turn_take: one script after the other, until the caller closes {turn}. Nothing that he runs gets that
# descriptor, or whatever outlives a script that was ended would keep the turn.
turn_take() {
    exec {turn}<.
    flock -w 3600 "$turn" || die "another script has been installing or building for an hour"
}

# need_packages WHAT_FOR PACKAGE...: installs the Debian packages that are missing, after saying
# which and what for; does nothing when all are there.
need_packages() {
    local what_for=$1 package log turn missing=()
    shift
    for package in "$@"; do
        if ! dpkg-query -W -f='${db:Status-Abbrev}' "$package" 2>/dev/null | grep -q '^.i'; then
            missing+=("$package")
        fi
    done
    if [ ${#missing[@]} -eq 0 ]; then
        return 0
    fi
    turn_take
    say "Installing what $what_for needs and this machine lacks: ${missing[*]}"
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null || die "neither root nor sudo: please install them by hand"
        say "(with apt-get, through sudo)"
    fi
    say "This may take a few minutes ..."
    # Lists older than the archive name files that are gone, so they are fetched whether or not
    # there are some. Offline the ones at hand may still do. A machine that has just been started
    # may be busy with its own updates: wait for it.
    log=$(mktemp)
    as_root apt-get -qq update </dev/null >"$log" 2>&1 {turn}<&- ||
        say "apt-get update failed; trying with the old lists"
    if ! without_services as_root env DEBIAN_FRONTEND=noninteractive \
        apt-get -qq -y -o DPkg::Lock::Timeout=600 --no-install-recommends install "${missing[@]}" \
        </dev/null >>"$log" 2>&1 {turn}<&-; then
        tail -n 40 "$log"
        die "apt-get could not install: ${missing[*]} (all of it in $log)"
    fi
    rm -f "$log"
    exec {turn}<&-
    case " ${missing[*]} " in
        *" nginx-light "*) as_root update-rc.d nginx disable >/dev/null 2>&1 || true ;;
    esac
}

# apt_for ARCHITECTURE FOLDER COMMAND...: runs an apt command for another architecture, with lists and
# state of its own in the folder (an absolute path): the machine's architectures and package lists stay
# untouched. Its configured sources are used as they are.
apt_for() {
    local architecture=$1 folder=$2
    shift 2
    mkdir -p "$folder/lists/partial" "$folder/cache/archives/partial"
    : >"$folder/status"
    cat >"$folder/apt.conf" <<CONF
APT::Architecture "$architecture";
APT::Architectures { "$architecture"; };
APT::Sandbox::User "root";
Acquire::Languages "none";
Dir::State "$folder";
Dir::State::lists "$folder/lists";
Dir::State::status "$folder/status";
Dir::Cache "$folder/cache";
CONF
    APT_CONFIG=$folder/apt.conf "$@"
}

# The libraries of gwrelay.
relay_packages=(libasio-dev libcli11-dev libssl-dev libspdlog-dev nlohmann-json3-dev libtomlplusplus-dev)

# need_test_packages WHAT_FOR PACKAGE...: those, and what it takes to build everything for this
# machine and to run all tests.
need_test_packages() {
    need_packages "$@" g++ cmake make libgtest-dev "${relay_packages[@]}" curl nginx-light util-linux iproute2 \
        busybox groff-base apache2-utils haproxy caddy openssl stunnel4 libfaketime logrotate
}

# Runs an installation during which Debian starts no service: nobody asked for a web server on
# port 80, and where that port is taken its package would even fail to install.
without_services() {
    local policy=/usr/sbin/policy-rc.d
    if [ -e "$policy" ]; then
        "$@"
        return
    fi
    (
        trap 'as_root rm -f "$policy"' EXIT
        printf '#!/bin/sh\nexit 101\n' | as_root tee "$policy" >/dev/null
        as_root chmod 755 "$policy"
        "$@"
    )
}

# quietly LOG COMMAND...: keeps a long output out of sight unless the command fails.
quietly() {
    local log=$1
    shift
    mkdir -p "$(dirname "$log")"
    if ! "$@" >"$log" 2>&1; then
        tail -n 60 "$log"
        die "failed: $* (all of it in $log)"
    fi
}

jobs_count() {
    nproc 2>/dev/null || echo 2
}

# build PRESET TARGET...: programs without their tests. Scripts that run at once take turns: they may
# want the same folder, and one build takes all processors as it is.
build() {
    local preset=$1 turn
    shift
    turn_take
    quietly "build/$preset/configure.log" cmake --preset "$preset" -DBUILD_TESTING=OFF {turn}<&-
    quietly "build/$preset/build.log" \
        cmake --build --preset "$preset" -j "$(jobs_count)" --target "$@" {turn}<&-
    exec {turn}<&-
}

# wait_for LIMIT COMMAND...: tries the command every 200 ms for LIMIT seconds.
wait_for() {
    local end=$((SECONDS + $1))
    shift
    until "$@"; do
        [ "$SECONDS" -lt "$end" ] || return 1
        sleep 0.2
    done
}

# relay_port NAME FILE: one of the ports in the line that gwrelay has written to its output.
relay_port() {
    sed -n "s/^ready .*$1=\([0-9]*\).*/\1/p" "$2"
}

# The sanitizers of this compiler cannot place their shadow memory when the kernel spreads addresses
# over 32 bits, as newer ones do. A container may forbid to switch that off; then it must do as is.
plainly() { "$@"; }
fixed_places=(setarch "$(uname -m)" --addr-no-randomize)
"${fixed_places[@]}" true 2>/dev/null || fixed_places=()
in_fixed_places() { "${fixed_places[@]}" "$@"; }

# can_be_alone: whether this machine allows what `alone` makes of it. A user who is not root keeps his
# number in there, as servers want to be the user they are.
alone_machine=(unshare --fork --kill-child --pid --net --mount-proc)
[ "$(id -u)" -eq 0 ] || alone_machine+=(--user --map-current-user --keep-caps)
can_be_alone() { "${alone_machine[@]}" true 2>/dev/null; }

# alone COMMAND...: on a network and with process numbers of its own where the machine allows it, in a
# session of its own in any case. The command is the first process in there and the parent of all: the
# shell replaces itself. Whoever calls this calls alone_end at exit.
alone_pid=""
alone() {
    local set_up="PATH=\$PATH:/usr/sbin:/sbin; ip link set lo up; exec \"\$@\""
    if can_be_alone; then
        setsid "${alone_machine[@]}" sh -c "$set_up" sh "$@" &
    else
        setsid "$@" &
    fi
    alone_pid=$!
    wait "$alone_pid"
}

alone_end() {
    if [ -n "$alone_pid" ]; then
        kill -KILL -- "-$alone_pid" 2>/dev/null || true
        wait "$alone_pid" 2>/dev/null || true
    fi
}
