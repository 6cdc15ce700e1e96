# A static program with musl inside, by a compiler that was made for glibc: to see that gwad does not depend
# on glibc, and to have it in one file. For this machine that is g++ and the package musl-tools;
# mipsel-musl.cmake sets what another one takes. Debian's wrapper is for C alone, so its specs are given to
# g++, with the headers of libstdc++ in front of musl's. A toolchain that was made for musl needs none of this.
#
#   GWAD_CROSS_PREFIX, CMAKE_CXX_COMPILER   as cross.cmake has set them, or nothing
#   GWAD_MUSL_ROOT                          where the target's package musl-dev is unpacked; nothing: /
if(NOT GWAD_CROSS_PREFIX)
    set(CMAKE_CXX_COMPILER g++)
    set(CMAKE_CXX_FLAGS_INIT "") # this file is read more than once
    set(CMAKE_EXE_LINKER_FLAGS_INIT "")
endif()
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -dumpversion OUTPUT_VARIABLE version OUTPUT_STRIP_TRAILING_WHITESPACE)
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-multiarch OUTPUT_VARIABLE multiarch OUTPUT_STRIP_TRAILING_WHITESPACE)
if(GWAD_CROSS_PREFIX)
    set(headers /usr/${multiarch}/include)
    set(library_headers "-I${headers}/c++/${version} -I${headers}/c++/${version}/${multiarch}")
    set(asm ${headers}/asm)
else()
    set(headers /usr/include)
    set(library_headers "-I${headers}/c++/${version} -I${headers}/${multiarch}/c++/${version}")
    set(asm ${headers}/${multiarch}/asm)
endif()
# The specs name the places where a machine has musl for itself.
string(REPLACE gnu musl musl_triplet "${multiarch}")
set(specs ${GWAD_MUSL_ROOT}/usr/lib/${musl_triplet}/musl-gcc.specs)
if(NOT EXISTS ${specs})
    message(FATAL_ERROR "${specs} is not there: that is the package musl-dev (for this machine: musl-tools)")
endif()
file(READ ${specs} texts)
string(REGEX REPLACE "( |-L)/usr/" "\\1${GWAD_MUSL_ROOT}/usr/" texts "${texts}")
file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/musl.specs CONTENT "${texts}" @ONLY)
# The kernel's headers serve every C library; the folder that they share with glibc does not.
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/kernel)
file(CREATE_LINK ${headers}/linux ${CMAKE_BINARY_DIR}/kernel/linux SYMBOLIC)
file(CREATE_LINK ${headers}/asm-generic ${CMAKE_BINARY_DIR}/kernel/asm-generic SYMBOLIC)
file(CREATE_LINK ${asm} ${CMAKE_BINARY_DIR}/kernel/asm SYMBOLIC)
string(APPEND CMAKE_CXX_FLAGS_INIT " -specs=${CMAKE_BINARY_DIR}/musl.specs ${library_headers} "
    "-idirafter ${CMAKE_BINARY_DIR}/kernel -include ${CMAKE_CURRENT_LIST_DIR}/musl.h")
string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT " -static")
