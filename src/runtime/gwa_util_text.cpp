#include "runtime/gwa_util_text.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

#include "runtime/gwa_print.h"

namespace {

constexpr size_t HEX_ROW = 16;
constexpr size_t HEX_ROW_TEXT_SIZE = 96;  // offset, 16 times "00 ", 16 characters, the ends
constexpr size_t SIZE_TEXT_MIN = 16;

}  // namespace

// One row: its offset, the bytes and, if they fill it, the same as characters.
static void hexdump_row(const unsigned char* bytes, size_t at, size_t count) {
    char row[HEX_ROW_TEXT_SIZE];
    size_t length =
        static_cast<size_t>(snprintf(row, sizeof row, "0x%04x  ", static_cast<unsigned>(at)));
    for (size_t i = 0; i < count; ++i) {
        length += static_cast<size_t>(
            snprintf(row + length, sizeof row - length, "%02x ", bytes[at + i]));
    }
    if (count == HEX_ROW) {
        row[length++] = ' ';
        for (size_t i = 0; i < count; ++i) {
            row[length++] = isprint(bytes[at + i]) != 0 ? static_cast<char>(bytes[at + i]) : '.';
        }
        row[length++] = '\n';
    }
    row[length] = '\0';
    gwa_print("%s", row);
}

void gwa_hexdump(const void* data, size_t length) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    gwa_print("         0  1  2  3  4  5  6  7  8  9  a  b  c  d  e  f\n");
    gwa_print("        -- -- -- -- -- -- -- -- -- -- -- -- -- -- -- --\n");
    for (size_t at = 0; at < length; at += HEX_ROW) {
        hexdump_row(bytes, at, std::min(length - at, HEX_ROW));
    }
    gwa_print("\n");
}

const char* gwa_size_format(uint64_t value, char* buffer, size_t size) {
    static char fallback[SIZE_TEXT_MIN];
    if (buffer == nullptr) {
        buffer = fallback;
        size = sizeof fallback;
    }
    if (size < SIZE_TEXT_MIN) {
        return "ERROR";
    }
    constexpr uint64_t KIB = 1024;
    constexpr int KIB_SHIFT = 10;
    constexpr double PER_KIB = 0x1p-10;
    if (value < KIB) {
        snprintf(buffer, size, "%llu", static_cast<unsigned long long>(value));
        return buffer;
    }
    for (const char* format : {"%.3fK", "%.3fM", "%.3fG", "%.3fT"}) {
        if (value < KIB * KIB) {
            snprintf(buffer, size, format, static_cast<double>(value) * PER_KIB);
            return buffer;
        }
        value >>= KIB_SHIFT;
    }
    snprintf(buffer, size, "XXX");
    return buffer;
}
