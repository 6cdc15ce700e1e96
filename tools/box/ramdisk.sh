# shellcheck shell=bash
# ramdisk.sh - gets Debian's kernel and busybox for mipsel and makes the box's initial RAM disk.
# Sourced by scripts/box. Everything is under build/box and is kept for the next time.

box_dir=$PWD/build/box
KERNEL_META=linux-image-4kc-malta
BUSYBOX=busybox-static
MODULES="mii pcnet32 dummy" # the network card, and an interface with a random address
NOT_TO_BE_HAD=77 # exit status: nothing is wrong, but this machine cannot have the packages
BIG_FILE_BYTES=4000000

apt_mipsel() { apt_for mipsel "$box_dir/apt" "$@"; }

# Puts the kernel, its modules and busybox into build/box/debian.
get_packages() {
    local kernel module at=$box_dir/download
    if [ "$(cat "$box_dir/debian/complete" 2>/dev/null)" = "$MODULES" ]; then
        return 0
    fi
    say "Downloading the kernel and busybox for mipsel (46 MB) ..."
    rm -rf "$box_dir/debian" "$at"
    mkdir -p "$box_dir/debian" "$at"
    apt_mipsel apt-get -qq update >"$box_dir/apt.log" 2>&1 || true # one bad source spoils nothing
    kernel=$(apt_mipsel apt-cache depends "$KERNEL_META" 2>/dev/null |
        sed -n 's/.*Depends: \(linux-image-[^ ]*\)$/\1/p' | head -n 1)
    if [ -z "$kernel" ] ||
        ! (cd "$at" && apt_mipsel apt-get -qq download "$kernel" "$BUSYBOX") >>"$box_dir/apt.log" 2>&1; then
        say "scripts/box: skipped: this machine's package sources have no mipsel kernel and busybox"
        exit "$NOT_TO_BE_HAD"
    fi
    (
        cd "$at" || exit
        dpkg-deb -x "$kernel"_*.deb kernel
        dpkg-deb -x "$BUSYBOX"_*.deb busybox
        cp kernel/boot/vmlinuz-* "$box_dir/debian/vmlinuz"
        for module in $MODULES; do
            find kernel/lib/modules -name "$module.ko" -exec cp {} "$box_dir/debian/" \;
        done
        cp busybox/bin/busybox "$box_dir/debian/"
    )
    rm -rf "$at"
    echo "$MODULES" >"$box_dir/debian/complete"
}

build_programs() {
    say "Building gwad for mipsel and gwrelay for this machine ..."
    build mipsel installed_programs
    build release gwrelay
}

# Copies the libraries that the programs name, and the loader, from the cross compiler's.
copy_libraries() {
    local root=$1 library
    for library in ld.so.1 $(mipsel-linux-gnu-readelf -d "$root/usr/sbin/gwad" "$root"/usr/bin/{gwad-announce,idle} |
        sed -n 's/.*Shared library: \[\(.*\)\]/\1/p' | sort -u); do
        cp -L "/usr/mipsel-linux-gnu/lib/$library" "$root/lib/"
    done
}

make_ramdisk() {
    local root=$box_dir/root
    rm -rf "$root"
    mkdir -p "$root"/{bin,dev,lib/modules,proc,sys,tmp,usr/bin,root}
    quietly "$box_dir/install.log" env DESTDIR="$root" cmake --install build/mipsel --strip
    cp -r tools/box/root/. "$root/"
    chmod 755 "$root/etc/init.d/rcS" "$root/sbin/agent" "$root/www/cgi-bin/digest"
    cp "$box_dir"/debian/*.ko "$root/lib/modules/"
    cp "$box_dir/debian/busybox" "$root/bin/"
    ln -s busybox "$root/bin/sh"
    ln -s ../bin/busybox "$root/sbin/init"
    mipsel-linux-gnu-gcc -Os -o "$root/usr/bin/idle" tools/box/idle.c
    copy_libraries "$root"
    head -c "$BIG_FILE_BYTES" /dev/urandom >"$root/www/big.bin"
    (cd "$root" && find . | cpio --quiet -o -H newc -R 0:0 | gzip -1) >"$box_dir/ramdisk.gz"
}
