// musl.h - included first by every source of the musl build: what lets the headers of Debian's
// libstdc++, which were configured for glibc, stand on musl. Only templates of it are used, so no
// code that was compiled for glibc gets into the program.
#pragma once

#define __GLIBC_PREREQ(major, minor) 0
#define __locale_t locale_t
#include <bits/c++config.h>
// Not in this musl.
#undef _GLIBCXX_USE_PTHREAD_COND_CLOCKWAIT
#undef _GLIBCXX_USE_PTHREAD_MUTEX_CLOCKLOCK
#undef _GLIBCXX_USE_PTHREAD_RWLOCK_CLOCKLOCK
