# A compiler for another machine, told by its prefix. mipsel.cmake, mips.cmake and armhf.cmake name Debian's;
# for a vendor's or one's own:
#
#   cmake --toolchain cmake/cross.cmake -DGWAD_CROSS_PREFIX=/opt/sdk/bin/mipsel-linux-musl- ...
#
# More flags are taken from CXXFLAGS and LDFLAGS of the environment, behind those from here.
if(NOT GWAD_CROSS_PREFIX)
    message(FATAL_ERROR "GWAD_CROSS_PREFIX is not set: what the compiler's name begins with, as mipsel-linux-musl-")
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES GWAD_CROSS_PREFIX)

# The processor is also the Debian package's architecture.
cmake_path(GET GWAD_CROSS_PREFIX FILENAME triplet)
string(REGEX REPLACE "-$" "" triplet "${triplet}")
set(CMAKE_SYSTEM_NAME Linux)
if(NOT CMAKE_SYSTEM_PROCESSOR)
    string(REGEX MATCH "^[^-]+" CMAKE_SYSTEM_PROCESSOR "${triplet}")
endif()
set(CMAKE_CXX_COMPILER ${GWAD_CROSS_PREFIX}g++)
set(CMAKE_C_COMPILER ${GWAD_CROSS_PREFIX}gcc)

set(CMAKE_CXX_FLAGS_INIT "")
set(CMAKE_EXE_LINKER_FLAGS_INIT "")
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^mips(el)?$")
    # Code for one fixed place in memory: on this processor code that can live anywhere is a quarter
    # larger, because every call and every global goes through a table. The price is that the program
    # itself (not its stack, heap and libraries) has the same addresses in every process.
    set(CMAKE_CXX_FLAGS_INIT "-fno-pic -fno-pie -mno-shared -mplt")
    # The linker would begin the data at a page of its own in the file, too; the memory is the same.
    set(CMAKE_EXE_LINKER_FLAGS_INIT "-no-pie -Wl,-z,common-page-size=16")
endif()

# Where the target's libraries are: in a folder of Debian's, or where the compiler says.
set(target_root /usr/${triplet})
if(NOT IS_DIRECTORY ${target_root})
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-sysroot OUTPUT_VARIABLE target_root
                    OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET RESULT_VARIABLE failed)
endif()
set(CMAKE_FIND_ROOT_PATH ${target_root})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# The unit tests run under qemu (package qemu-user), which finds the C library in there.
string(REGEX REPLACE "^arm.*" "arm" emulated "${CMAKE_SYSTEM_PROCESSOR}")
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-${emulated} -L ${target_root})
