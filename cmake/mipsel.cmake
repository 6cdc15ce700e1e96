# Debian's cross compiler for 32-bit little-endian MIPS (package g++-mipsel-linux-gnu). The unit
# tests run under qemu-mipsel (package qemu-user), which finds the C library in the sysroot.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(CMAKE_CXX_COMPILER mipsel-linux-gnu-g++)
set(CMAKE_C_COMPILER mipsel-linux-gnu-gcc)
# Code for one fixed place in memory: on this processor code that can live anywhere is a quarter
# larger, because every call and every global goes through a table. The price is that the program
# itself (not its stack, heap and libraries) has the same addresses in every process.
set(CMAKE_CXX_FLAGS_INIT "-fno-pic -fno-pie -mno-shared -mplt")
# The linker would begin the data at a page of its own in the file, too; the memory is the same.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-no-pie -Wl,-z,common-page-size=16")
set(CMAKE_FIND_ROOT_PATH /usr/mipsel-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-mipsel -L /usr/mipsel-linux-gnu)
