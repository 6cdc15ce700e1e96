# What makes a mistake in memory harder to use, in builds that get shipped (CMAKE_BUILD_TYPE Release):
# checked copies, a guard below frames with a buffer, tables of addresses that are written once, no code
# on the stack. Each where this toolchain has it, which is tried and not assumed; configuring says what
# it lacks, and scripts/size what the programs have.
#
# Position independence is the toolchain's choice: Debian's default for this machine, and none for the
# box, where it costs a quarter (cmake/mipsel.cmake).
include(CheckCXXSourceCompiles)
include(CheckLinkerFlag)

set(GWAD_STACK_PROTECTOR "-fstack-protector-strong" CACHE STRING "which frames have a guard, or nothing")

# What is read-only after the start (relro) ends with a page, up to which the file is filled: with the
# 64 KB that pages may have on MIPS, by 33 KB.
set(GWAD_PAGE_SIZE "" CACHE STRING "the largest pages, in bytes, that the kernel may have; empty: the processor's largest")

# harden(COMPILE|LINK OPTION): for all that is built from here on.
function(harden kind option)
    string(MAKE_C_IDENTIFIER "GWAD_HAS${option}" known)
    if(kind STREQUAL LINK)
        check_linker_flag(CXX "${option}" ${known})
    else()
        # Linked, too: the guard's value is the C library's.
        set(CMAKE_REQUIRED_FLAGS "${option}")
        check_cxx_source_compiles("void f(char*); void f(char*) {} int main() { char b[64]; f(b); }" ${known})
    endif()
    if(NOT ${known})
        message(STATUS "Not hardened: this toolchain has no ${option}")
    elseif(kind STREQUAL LINK)
        add_link_options("${option}")
    else()
        add_compile_options("${option}")
    endif()
endfunction()

if(CMAKE_BUILD_TYPE STREQUAL Release)
    if(GWAD_STACK_PROTECTOR)
        harden(COMPILE "${GWAD_STACK_PROTECTOR}")
    endif()
    harden(LINK "-Wl,-z,relro")
    if(GWAD_PAGE_SIZE)
        harden(LINK "-Wl,-z,max-page-size=${GWAD_PAGE_SIZE}")
    endif()
    harden(LINK "-Wl,-z,now")
    # Kernels for MIPS before 4.8 run pieces of code on the stack when they emulate floating point: who
    # has such a one asks the linker for execstack.
    if(NOT CMAKE_EXE_LINKER_FLAGS MATCHES "z,execstack")
        harden(LINK "-Wl,-z,noexecstack")
    endif()
    # It is the C library's headers that check: glibc's do, musl's do not.
    set(CMAKE_REQUIRED_FLAGS "-O1 -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2")
    check_cxx_source_compiles("#include <string.h>
        #if !defined __USE_FORTIFY_LEVEL || __USE_FORTIFY_LEVEL < 2
        #error
        #endif
        int main() {}" GWAD_HAS_FORTIFY_SOURCE)
    unset(CMAKE_REQUIRED_FLAGS)
    if(GWAD_HAS_FORTIFY_SOURCE)
        add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
    else()
        message(STATUS "Not hardened: this C library has no _FORTIFY_SOURCE")
    endif()
endif()
