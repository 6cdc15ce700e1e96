# 32-bit little-endian MIPS with musl inside: Debian's cross compiler for glibc, and Debian's musl-dev for
# that processor, which scripts/package --static unpacks there.
include(${CMAKE_CURRENT_LIST_DIR}/mipsel.cmake)
cmake_path(SET GWAD_MUSL_ROOT NORMALIZE ${CMAKE_CURRENT_LIST_DIR}/../build/musl-dev/mipsel)
include(${CMAKE_CURRENT_LIST_DIR}/musl.cmake)
