#!/bin/bash
# Installs, updates, removes and purges the packages in a scratch root of Debian: without an init, with a
# stand-in for System V's, and with systemd where this machine can boot one in there. Run as root.
#
#   lifecycle_test.sh ROOT_TAR PACKAGES NEXT_PACKAGES
set -eu
work=$(mktemp -d)
root=$work/root
booted=
group=
clean_up() {
    # Without its first process the kernel ends all the others in there.
    [ -z "$booted" ] || { kill -KILL "$booted" && wait "$booted"; } 2>/dev/null || true
    for _ in {1..50}; do
        [ -d "$group" ] || break
        find "$group" -depth -type d -exec rmdir {} + 2>/dev/null || sleep 0.1 # they take a moment to end
    done
    rm -rf "$work"
}
trap clean_up EXIT
trap 'exit 1' INT TERM

mkdir "$root"
tar -C "$root" -xf "$1"
mkdir "$root/old" "$root/new"
architecture=$(dpkg --print-architecture)
cp "$2"/*_"$architecture".deb "$root/old"
cp "$3"/*_"$architecture".deb "$root/new"

# --- in the root ---

fail() {
    echo "FAILED: ${FUNCNAME[*]:1:2}: $*" >&2
    exit 1
}

# eventually COMMAND...: within two minutes, beside other work; a login alone takes six seconds, after a
# restart eight.
eventually() {
    local tries=1200
    until "$@"; do
        tries=$((tries - 1))
        [ "$tries" -gt 0 ] || fail "not true: $*"
        sleep 0.1
    done
}

# The processes whose program is $1, also where that has been replaced or removed; those that have ended
# have none.
pids_of() {
    local process
    for process in /proc/[0-9]*; do
        case $(readlink "$process/exe") in
            "/usr/sbin/$1" | "/usr/sbin/$1 (deleted)") echo "${process#/proc/}" ;;
        esac
    done
}
is_one() { [ "$(pids_of "$1" | wc -w)" = 1 ]; }
is_none() { [ -z "$(pids_of "$1")" ]; }
none_runs() {
    is_none gwad || fail "gwad runs: $*"
    is_none gwrelay || fail "gwrelay runs: $*"
}
is_another() { is_one gwad && [ "$(pids_of gwad)" != "$1" ]; }

installs() { dpkg -i "/$1"/*.deb >/out 2>&1 || fail "$(cat /out)"; }
removes() { dpkg "--$1" gwad gwrelay >/out 2>&1 || fail "$(cat /out)"; }

# What an operator sets.
settings_write() {
    sed -i 's/^GWAD_RELAY=.*/GWAD_RELAY=127.0.0.1/; s/^GWAD_OPTIONS=.*/GWAD_OPTIONS="-i lo -I a-box -V 3"/' \
        /etc/default/gwad
}
settings_are_kept() { grep -q '^GWAD_RELAY=127.0.0.1$' /etc/default/gwad || fail "/etc/default/gwad is another"; }

nothing_is_left() {
    local left
    left=$(find /etc /lib/systemd /usr /var/lib/systemd /var/log /tmp \( -name '*gwad*' -o -name '*gwrelay*' \
        -o -name session.id -o -name dlna.sock \))
    [ -z "$left" ] || fail "$left"
    ! id gwrelay 2>/dev/null || fail "the user is still there"
}

without_an_init() {
    ln -s /bin/true /sbin/init # it is there, and does not run
    installs old
    settings_write
    installs new
    none_runs "nothing should have been started"
    [ -e /etc/systemd/system/multi-user.target.wants/gwadsh.service ] || fail "not enabled"
    settings_are_kept
    removes purge
    nothing_is_left
}

with_system_v() {
    local pid
    mkfifo /run/initctl
    printf '#!/bin/sh\necho N 2\n' >/sbin/runlevel
    chmod 755 /sbin/runlevel
    installs old
    is_none gwad || fail "gwad has no interface, and runs"
    settings_write
    /etc/init.d/gwadsh start || fail "no start"
    eventually is_one gwad
    pid=$(pids_of gwad)
    installs new
    is_another "$pid" || fail "an update does not restart it: $(cat /out)"
    settings_are_kept
    removes remove
    none_runs removed
    settings_are_kept
    installs new
    eventually is_one gwad
    removes purge
    none_runs purged
    nothing_is_left
    rm /run/initctl /sbin/runlevel /sbin/init
}

main_pid() { systemctl show -p MainPID --value gwadsh; }
restarts() { systemctl show -p NRestarts --value gwadsh; }
is_online() { journalctl -o cat "_PID=$(main_pid)" | grep -q 'dlna status socket init success'; }

# It has logged in and listens, is alone, and its process is the one that systemd knows, by both names.
is_well() {
    is_one gwad && [ "$(pids_of gwad)" = "$(main_pid)" ] && systemctl is-active --quiet gwad && is_online
}

with_systemd() {
    local pid count
    installs old
    eventually is_one gwrelay
    [ "$(stat -c %U "/proc/$(pids_of gwrelay)")" = gwrelay ] || fail "gwrelay is another user's"
    settings_write
    eventually is_well # it has been tried again and again since the installation

    # An address that comes makes gwad restart itself. Its child would run the init script after 2 s.
    pid=$(main_pid) count=$(restarts)
    : >/address_wanted
    eventually is_another "$pid"
    eventually is_well
    sleep 3
    [ "$(restarts)" = $((count + 1)) ] || fail "$(($(restarts) - count)) restarts instead of one"
    is_well || fail "after a restart of its own: $(pids_of gwad), systemd knows $(main_pid)"

    # The init script asks systemd.
    pid=$(main_pid)
    /etc/init.d/gwadsh start
    /etc/init.d/gwadsh status >/dev/null
    [ "$(main_pid)" = "$pid" ] || fail "a start beside systemd's gwad is another one"
    /etc/init.d/gwadsh restart
    eventually is_another "$pid"
    eventually is_well
    kill -KILL "$(main_pid)"
    eventually is_well
    /etc/init.d/gwadsh stop
    is_none gwad || fail "gwadsh stop leaves one"
    /etc/init.d/gwadsh start

    pid=$(main_pid)
    systemctl disable gwadsh 2>/dev/null
    installs new
    eventually is_another "$pid" # systemd is content with a shell that will become gwad
    ! systemctl is-enabled --quiet gwadsh || fail "an update switches it on again"
    systemctl enable gwadsh 2>/dev/null
    settings_are_kept
    removes remove
    none_runs removed
    installs new
    eventually is_well
    removes purge
    none_runs purged
    nothing_is_left
}

# --- outside ---

functions=$(declare -f)
alone=(unshare --mount --pid --net --fork --kill-child)

# in_root FUNCTION: with processes and a network of its own, and no init.
in_root() {
    "${alone[@]}" --mount-proc="$root/proc" chroot "$root" /bin/bash -euc "$functions
$1"
    echo "The packages do as they should ${1//_/ }."
}

# boot: systemd is the first process in the root; fails where the machine does not allow it.
boot() {
    local tree
    tree=$(findmnt -n -o TARGET -t cgroup2 | head -n 1)
    [ -n "$tree" ] && group=$tree/gwad-package.$$ && mkdir "$group" 2>/dev/null || return 1
    # shellcheck disable=SC2016 # the inner shell's
    (echo "$BASHPID" >"$group/cgroup.procs" && exec env -i container=scratch "PATH=$PATH" \
        "${alone[@]}" --uts --ipc --cgroup --propagation private sh -euc '
            cd "$1"
            mount --bind . . && cd "$1"
            mount -t proc proc proc
            mount -t sysfs -o ro sysfs sys
            mount -t cgroup2 cgroup2 sys/fs/cgroup
            mount -t tmpfs tmpfs run
            mount -t tmpfs tmpfs dev
            mkdir -p host dev/shm dev/pts
            mount -t devpts -o newinstance,ptmxmode=0666 devpts dev/pts
            ln -s pts/ptmx dev/ptmx
            for device in null zero full random urandom tty; do
                : >dev/$device
                mount --bind /dev/$device dev/$device
            done
            pivot_root . host
            umount -l host
            exec /lib/systemd/systemd --unit=multi-user.target' sh "$root") >"$work/console" 2>&1 </dev/null &
    booted=$!
    local end=$((SECONDS + 60)) # beside other work
    while [ "$SECONDS" -lt "$end" ]; do
        first=$(cat "/proc/$booted/task/$booted/children" 2>/dev/null) || return 1
        if in_systemd "systemctl is-active --quiet multi-user.target" 2>/dev/null; then
            return 0
        fi
        sleep 0.2
    done
    return 1
}
in_systemd() { timeout -k 10 600 nsenter -t "${first% }" --all /bin/bash -euc "$functions
$1"; }

in_root without_an_init
in_root with_system_v
if ! boot; then
    echo "systemd cannot be booted on this machine: the packages have not been tried with it."
    tail -n 3 "$work/console"
    exit 0
fi
in_systemd with_systemd &
tried=$!
while kill -0 "$tried" 2>/dev/null; do
    if [ -e "$root/address_wanted" ]; then
        rm "$root/address_wanted"
        nsenter -t "${first% }" --net ip address add 127.0.0.2/8 dev lo
    fi
    sleep 0.1
done
wait "$tried" || {
    in_systemd "journalctl -o cat -n 30"
    exit 1
}
echo "The packages do as they should with systemd."
