# Debian's clang, for what it sees and g++ does not (scripts/check): functions and variables that
# should be static or stand in a header, and locks, by the annotations of gwa_util_lock.h.
set(CMAKE_CXX_COMPILER clang++)
string(CONCAT CMAKE_CXX_FLAGS_INIT "-Wthread-safety -Wmissing-declarations -Wmissing-prototypes "
    "-Wmissing-variable-declarations -include ${CMAKE_CURRENT_LIST_DIR}/clang.h "
    # Some options for g++ it does not know.
    "-Wno-unknown-warning-option "
    # Coroutines clang 14 has, but it does not say so, neither to libstdc++ nor to Asio.
    "-D__cpp_impl_coroutine=201902L -DASIO_HAS_CO_AWAIT=1")
