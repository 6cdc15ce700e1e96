# shellcheck shell=bash
# ramdisk.sh - gets Debian's kernel and busybox for the box and makes its RAM disk, and a disk.
# Sourced by scripts/box after a machine kind. Everything but the disk is under build/box and is kept for
# the next time.

box_dir=$PWD/build/box/$ARCHITECTURE
BUSYBOX=busybox-static
DISK_SIZE=16M
NOT_TO_BE_HAD=77 # exit status: nothing is wrong, but this machine cannot have the packages
BIG_FILE_BYTES=4000000

apt_of_box() { apt_for "$ARCHITECTURE" "$box_dir/apt" "$@"; }

# Puts the kernel, its modules and busybox into the folder debian/.
get_packages() {
    local kernel module at=$box_dir/download
    if [ "$(cat "$box_dir/debian/complete" 2>/dev/null)" = "$MODULES" ]; then
        return 0
    fi
    say "Downloading the kernel and busybox for $ARCHITECTURE (some 45 MB) ..."
    rm -rf "$box_dir/debian" "$at"
    mkdir -p "$box_dir/debian" "$at"
    apt_of_box apt-get -qq update >"$box_dir/apt.log" 2>&1 || true # one bad source spoils nothing
    kernel=$(apt_of_box apt-cache depends "$KERNEL_META" 2>/dev/null |
        sed -n 's/.*Depends: \(linux-image-[^ ]*\)$/\1/p' | head -n 1)
    if [ -z "$kernel" ] ||
        ! (cd "$at" && apt_of_box apt-get -qq download "$kernel" "$BUSYBOX") >>"$box_dir/apt.log" 2>&1; then
        say "scripts/box: skipped: this machine's package sources have no $ARCHITECTURE kernel and busybox"
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
    say "Building gwad for $ARCHITECTURE and gwrelay for this machine ..."
    build "$ARCHITECTURE" installed_programs
    build "$relay_preset" gwrelay
}

# Copies the libraries that the programs name, and the loader, from the cross compiler's.
copy_libraries() {
    local root=$1 library
    for library in "$LOADER" $("$TOOLS-readelf" -d "$root/usr/sbin/gwad" "$root"/usr/bin/{gwad-announce,idle} |
        sed -n 's/.*Shared library: \[\(.*\)\]/\1/p' | sort -u); do
        cp -L "/usr/$TOOLS/lib/$library" "$root/lib/"
    done
}

make_ramdisk() {
    local root=$box_dir/root
    rm -rf "$root"
    mkdir -p "$root"/{bin,dev,lib/modules,opt/gwad,proc,sys,tmp,usr/bin,root}
    quietly "$box_dir/install.log" env DESTDIR="$root" cmake --install "build/$ARCHITECTURE" --strip
    cp -r tools/box/root/. "$root/"
    chmod 755 "$root/etc/init.d/rcS" "$root/sbin/agent" "$root/www/cgi-bin/digest"
    sed -i "s/@console@/$CONSOLE/; s/@agent@/$AGENT/" "$root/etc/inittab"
    # Beside other work its processor is slow, and its clock is not.
    sed -i 's/^stop_limit_s=.*/stop_limit_s=30/' "$root/etc/init.d/gwadsh"
    ln -sf /opt/gwad/etc/gwad "$root/etc/default/gwad"
    cp "$box_dir"/debian/*.ko "$root/lib/modules/"
    # shellcheck disable=SC2086 # a word each
    printf '%s\n' $MODULES >"$root/lib/modules/order"
    cp "$box_dir/debian/busybox" "$root/bin/"
    ln -s busybox "$root/bin/sh"
    ln -s ../bin/busybox "$root/sbin/init"
    "$TOOLS-gcc" -Os -o "$root/usr/bin/idle" tools/box/idle.c
    copy_libraries "$root"
    head -c "$BIG_FILE_BYTES" /dev/urandom >"$root/www/big.bin"
    (cd "$root" && find . | cpio --quiet -o -H newc -R 0:0 | gzip -1) >"$box_dir/ramdisk.gz"
}

# The disk of one run, empty as at a box's first boot.
make_disk() {
    truncate -s "$DISK_SIZE" "$work/disk"
    PATH=$PATH:/usr/sbin:/sbin mke2fs -q -t ext4 "$work/disk"
}
