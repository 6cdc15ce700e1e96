// clang.h - included first by every source of the clang build, for clang-tidy: strerror need not be
// safe among threads. In glibc and musl it is for every error that has a name, and these are all
// that we ask for; any other function that is not safe still gets reported.
#pragma once

#include <cstring>

inline const char* named_error_text(int error) {
    return strerror(error);  // NOLINT(concurrency-mt-unsafe)
}
#define strerror(error) named_error_text(error)
