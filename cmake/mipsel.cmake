# Debian's cross compiler for 32-bit little-endian MIPS (package g++-mipsel-linux-gnu).
set(GWAD_CROSS_PREFIX mipsel-linux-gnu-)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
