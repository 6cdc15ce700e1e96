# Debian's cross compiler for 32-bit ARM, version 7 with floating point (package g++-arm-linux-gnueabihf).
set(GWAD_CROSS_PREFIX arm-linux-gnueabihf-)
set(CMAKE_SYSTEM_PROCESSOR armhf) # as Debian says
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
