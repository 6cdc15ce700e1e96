# A program for this machine with musl inside (package musl-tools), to see that gwad does not depend
# on glibc. Debian's wrapper is for C alone, so its specs are given to g++, with the headers of
# libstdc++ in front of musl's. A toolchain that was made for musl needs none of this.
set(CMAKE_CXX_COMPILER g++)
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -dumpversion OUTPUT_VARIABLE version OUTPUT_STRIP_TRAILING_WHITESPACE)
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-multiarch OUTPUT_VARIABLE multiarch OUTPUT_STRIP_TRAILING_WHITESPACE)
execute_process(COMMAND musl-gcc -print-file-name=include ERROR_QUIET OUTPUT_QUIET RESULT_VARIABLE failed)
if(failed)
    message(FATAL_ERROR "musl-gcc is not there: install the package musl-tools")
endif()
# The kernel's headers serve every C library; the folder that they share with glibc does not.
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/kernel)
file(CREATE_LINK /usr/include/linux ${CMAKE_BINARY_DIR}/kernel/linux SYMBOLIC)
file(CREATE_LINK /usr/include/asm-generic ${CMAKE_BINARY_DIR}/kernel/asm-generic SYMBOLIC)
file(CREATE_LINK /usr/include/${multiarch}/asm ${CMAKE_BINARY_DIR}/kernel/asm SYMBOLIC)
file(GLOB specs /usr/lib/*-linux-musl/musl-gcc.specs)
string(CONCAT CMAKE_CXX_FLAGS_INIT "-specs=${specs} -I/usr/include/c++/${version} "
    "-I/usr/include/${multiarch}/c++/${version} -idirafter ${CMAKE_BINARY_DIR}/kernel "
    "-include ${CMAKE_CURRENT_LIST_DIR}/musl.h")
set(CMAKE_EXE_LINKER_FLAGS_INIT -static)
