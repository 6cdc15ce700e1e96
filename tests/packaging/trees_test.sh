#!/bin/bash
# The packages for firmware trees, with stand-ins for the trees (tests/packaging/trees): what they install,
# where a restart looks for its script, and what becomes of UCI's settings.
#
#   trees_test.sh BUILD_FOLDER
set -eu
cd "$(dirname "$0")/../.."
build=$1
trees=$PWD/tests/packaging/trees
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
trap 'exit 1' INT TERM
unset MAKEFLAGS MAKELEVEL

fail() {
    echo "FAILED: $*" >&2
    exit 1
}

# made NAME FILES ARGUMENT...: make with these arguments installs these files, and the program that is built
# restarts by one of them.
made() {
    local name=$1 files=$2 found script
    shift 2
    make "$@" WORK="$work/$name" PROGRAMS="$build/gwad $build/gwad-announce" >"$work/out" 2>&1 ||
        fail "$name: $(tail -n 20 "$work/out")"
    found=$(cd "$work/$name/root" && find . -type f ! -path '*/man/*' | sort | sed 's|^\./||' | tr '\n' ' ')
    [ "$found" = "$files " ] || fail "$name installs $found"
    script=$(sed -n 's/^#define GWAD_INIT_SCRIPT "\(.*\)"/\1/p' "$work/$name/build/src/gwad_config.h")
    [ -x "$work/$name/root$script" ] || fail "$name: a restart needs $script"
    grep -q '"relay.example.org"' "$work/$name/build/src/gwad_config.h" || fail "$name has another relay"
}

announce=usr/bin/gwad-announce programs="usr/sbin/gwad usr/sbin/gwad-doctor"
made openwrt "etc/config/gwad etc/init.d/gwad lib/upgrade/keep.d/gwad $announce usr/libexec/gwad-restart $programs" \
    -C packaging/openwrt TOPDIR="$trees" CONFIG_GWAD_MAIN_DOMAIN='"relay.example.org"'

buildroot=(-f "$trees/buildroot.mk" PACKAGE=packaging/buildroot BR2_PACKAGE_GWAD_SOURCE="\"$PWD\""
    BR2_PACKAGE_GWAD_MAIN_DOMAIN='"relay.example.org"')
settings="etc/default/gwad" rotation="etc/logrotate.d/gwad"
made buildroot "$settings etc/init.d/S99gwad $rotation lib/systemd/system/S99gwad.service $announce $programs" \
    "${buildroot[@]}"
mkdir -p "$work/respawn/root/etc"
echo '::sysinit:/etc/init.d/rcS' >"$work/respawn/root/etc/inittab"
made respawn "$settings etc/inittab $rotation $announce usr/libexec/gwad-restart $programs usr/sbin/gwad-run" \
    "${buildroot[@]}" BR2_PACKAGE_GWAD_RESPAWN=y
[ "$(cat "$work/respawn/root/etc/inittab")" = "::sysinit:/etc/init.d/rcS
::respawn:/usr/sbin/gwad-run" ] || fail "inittab: $(cat "$work/respawn/root/etc/inittab")"

# command_is EXPECTED SETTING...: by the init script under procd, and its $action.
command_is() {
    local expected=$1
    shift
    # shellcheck disable=SC2086
    CONFIG=packaging/openwrt/files/gwad.config SETTINGS="home=$work/home $*" \
        $shell "$trees/rc.common" "$PWD/packaging/openwrt/files/gwad.init" $action >"$work/out" 2>"$work/said" || true
    [ "$(cat "$work/out")" = "$expected" ] || fail "$shell: $action with '$*' makes '$(cat "$work/out" "$work/said")'"
}

for shell in sh "busybox sh"; do
    rm -rf "${work:?}/home"
    action=start
    command_is none enabled=0
    action=reload_service command_is none enabled=0
    [ ! -e "$work/home" ] || fail "not enabled, and leaves a home"
    command_is "/usr/sbin/gwad -p 9999 -i br-lan -L 127.0.0.1 -V 3 -H $work/home"
    [ -d "$work/home/tmp" ] || fail "gwad has no home"
    action=reload_service command_is "/usr/sbin/gwad -p 1 -i br-lan -L 127.0.0.1 -V 3 -H $work/home" port=1
    action=restart command_is "/usr/sbin/gwad -p 9999 -i br-lan -L 127.0.0.1 -V 3 -H $work/home"
    all="-p 1 -i eth0.2 -L 10.0.0.255 -V -1 -H $work/home -r r-1.example.org -I box_1 -l /tmp/g"
    command_is "/usr/sbin/gwad $all" port=1 interface=eth0.2 local=10.0.0.255 verbose=-1 relay=r-1.example.org \
        id=box_1 log=/tmp/g
    # shellcheck disable=SC2086
    "$build/gwad" $all -h >/dev/null 2>&1 || fail "gwad does not know one of its options: $all"
    # shellcheck disable=SC2016
    for setting in port=0 port=65536 port=1x port=99999999999999999999 interface=enp0s31f6 interface=-b \
        local=10.0.0 local=10.0.0.256 local=10..0.1 local=10.0.0.1. verbose=8 verbose=-2 verbose=- relay=-Z 'relay=a;b' \
        'id=$(b)' log=gwad.log 'log=/a;b' home=gwad; do
        command_is none "$setting"
        action=reload_service command_is "" "$setting" # procd hears nothing, and goes on
        grep -q "option ${setting%%=*} '" "$work/said" || fail "$setting is refused by: $(cat "$work/said")"
    done
done

# The interface that the other scripts find.
cat >"$work/route" <<'END'
Iface   Destination Gateway  Flags RefCnt Use Metric Mask     MTU Window IRTT
tun0    00000000    010000A0 0003  0      0   0      00000080 0   0      0
*       00000000    00000000 0200  0      0   0      00000000 0   0      0
longer-ethernet 00000000 0101A8C0 0003 0  0   0      00000000 0   0      0
eth1    00000000    0101A8C0 0003  0      0   0      00000000 0   0      0
END
sed "s|/proc/net/route|$work/route|; s|/sys/class/net/br-lan|/nowhere|" packaging/interface.sh >"$work/interface.sh"
found=$(busybox sh -c ". '$work/interface.sh'; interface")
[ "$found" = eth1 ] || fail "the default route's interface is $found"

# gwad-doctor reads the same settings.
mkdir "$work/bin"
cat >"$work/bin/uci" <<'SH'
#!/bin/sh
case $3 in *.main) ;; *.interface) echo nosuch0 ;; *.relay) echo 127.0.0.1 ;; *) exit 1 ;; esac
SH
chmod 755 "$work/bin/uci"
PATH=$work/bin:$PATH GWAD_SETTINGS=/nowhere sh "$build/packaging/gwad-doctor" >"$work/out" || true
grep -q '^FAULT interface .*nosuch0' "$work/out" || fail "gwad-doctor does not know UCI: $(cat "$work/out")"
echo "Both trees have their files, and UCI's settings become options."
