# shellcheck shell=bash disable=SC2034,SC2054
# arm.sh - a machine kind: the emulator's own board with a Cortex-A15, 32-bit ARM. It has one serial line,
# so the commands take a console of virtio.
# Sourced by scripts/box, which uses all of these; mipsel.sh says what they are.

ARCHITECTURE=armhf
KERNEL_META=linux-image-armmp
TOOLS=arm-linux-gnueabihf
LOADER=ld-linux-armhf.so.3
CONSOLE=ttyAMA0
AGENT=hvc0
MODULES="dummy virtio_mmio failover net_failover virtio_net virtio_console virtio_blk
crc32c_generic crc16 mbcache jbd2 ext4"
kind_packages=(g++-arm-linux-gnueabihf qemu-system-arm)
emulator=(qemu-system-arm -M "virt,highmem=off" -cpu cortex-a15
    -device virtio-net-device,netdev=n0 -device virtio-blk-device,drive=disk
    -serial chardev:console -device virtio-serial-device -device virtconsole,chardev=agent)
