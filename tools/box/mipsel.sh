# shellcheck shell=bash disable=SC2034,SC2054
# mipsel.sh - a machine kind: a Malta board with a 24Kf processor, 32-bit little-endian MIPS.
# Sourced by scripts/box, which uses all of these.

ARCHITECTURE=mipsel          # the name that Debian gives it, and we the preset
KERNEL_META=linux-image-4kc-malta
TOOLS=mipsel-linux-gnu       # what the cross compiler's programs begin with, and its folder under /usr
LOADER=ld.so.1
CONSOLE=ttyS0
AGENT=ttyS1
# Kernel modules in the order that they need each other: an interface with a random address, which comes
# before the network card, the card, the disk and its file system.
MODULES="dummy mii pcnet32 virtio virtio_ring virtio_pci_legacy_dev virtio_pci_modern_dev virtio_pci
virtio_blk crc32c_generic crc16 mbcache jbd2 ext4"
kind_packages=(g++-mipsel-linux-gnu qemu-system-mips)
# Slot 20 has an interrupt of its own. Two devices at the card's would lose some: it is told by its edges.
emulator=(qemu-system-mipsel -M malta -cpu 24Kf -vga none
    -device pcnet,netdev=n0,romfile= -device virtio-blk-pci,drive=disk,addr=0x14
    -serial chardev:console -serial chardev:agent)
