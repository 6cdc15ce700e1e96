# Debian's cross compiler for 32-bit big-endian MIPS (package g++-mips-linux-gnu).
set(GWAD_CROSS_PREFIX mips-linux-gnu-)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
