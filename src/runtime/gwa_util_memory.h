// gwa_util_memory.h - the one allocator.
//
// Threads: any.
#pragma once

#include <new>

#include "main/gwa_log.h"

// Returns gwa_round_up(size) bytes, not cleared, released with free(); never null: when there is no
// memory it logs and ends the process with status 1. A size below 1 is a bug of the caller and ends
// the process. Use GWA_MALLOC and GWA_NEW, which name the caller.
void* gwa_malloc(int size, const char* file, int line, const char* function);
#define GWA_MALLOC(size) gwa_malloc(static_cast<int>(size), GWA_FILE_NAME, __LINE__, __func__)
// A default-made record on the heap; trivially destructible, so free() releases it.
// NOLINTNEXTLINE(bugprone-macro-parentheses): parentheses around a type are no type
#define GWA_NEW(type) (new (GWA_MALLOC(sizeof(type))) type{})

// The size that gwa_malloc takes: powers of two from 32 to 8192, larger ones as they are; 0
// (logged) for a size below 1.
int gwa_round_up(int size);
