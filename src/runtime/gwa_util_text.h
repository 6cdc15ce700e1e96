// gwa_util_text.h - figures and bytes as people read them.
//
// Threads: any, but for the size formatter's fallback buffer.
#pragma once

#include <cstddef>
#include <cstdint>

// Prints bytes as rows of 16 to standard output.
void gwa_hexdump(const void* data, size_t length);

// A byte count for people: "512", "1.500K", "1.000M". A null buffer uses a static one (not
// thread-safe); one of less than 16 bytes gives "ERROR" and is not touched. Returns the text.
const char* gwa_size_format(uint64_t value, char* buffer, size_t size);
