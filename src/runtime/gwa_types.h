// gwa_types.h - the small types that every floor shares: results, traffic counters, bounded texts
// and big-endian access to bytes at any address.
//
// Includes nothing of ours and holds no state.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

// What a function answers when it has no count or descriptor to give. -2 is always "time ran out".
enum gwa_result : int { GWA_OK = 0, GWA_FAILED = -1, GWA_TIMED_OUT = -2 };

// A byte or packet count with one writer. Two halves, because a 64-bit atomic on 32-bit MIPS is a
// lock in a library that we do not link. A reader may meet a carry half done; the status table and
// the stall check can bear it.
struct gwa_counter {
    std::atomic<uint32_t> low{0}, high{0};
};

// Adds to a counter. Only the thread that owns the connection calls it.
inline void gwa_counter_add(gwa_counter& counter, uint32_t amount) {
    const uint32_t before = counter.low.load(std::memory_order_relaxed);
    const uint32_t after = before + amount;
    counter.low.store(after, std::memory_order_relaxed);
    if (after < before) {
        counter.high.store(counter.high.load(std::memory_order_relaxed) + 1,
                           std::memory_order_relaxed);
    }
}

// Reads a counter from any thread.
inline uint64_t gwa_counter_get(const gwa_counter& counter) {
    return (uint64_t{counter.high.load(std::memory_order_relaxed)} << 32) |
           counter.low.load(std::memory_order_relaxed);
}

// The traffic of one connection: written by its own thread, read by the status check.
struct gwa_traffic {
    gwa_counter bytes_in, bytes_out, packets_in, packets_out;
};

// The one way to fill a fixed-size text: copies what fits, always terminates. False: it was cut.
template <size_t N>
bool text_copy(char (&to)[N], std::string_view from) {
    const size_t length = std::min(from.size(), N - 1);
    *std::copy_n(from.begin(), length, to) = '\0';
    return length == from.size();
}

// Wire integers, byte by byte: the address may be odd, and MIPS traps on an unaligned wide access.
inline uint16_t load_be16(const uint8_t* from) {
    return static_cast<uint16_t>((from[0] << 8) | from[1]);
}
inline uint32_t load_be32(const uint8_t* from) {
    return (uint32_t{from[0]} << 24) | (uint32_t{from[1]} << 16) | (uint32_t{from[2]} << 8) |
           uint32_t{from[3]};
}
inline void store_be16(uint8_t* to, uint16_t value) {
    to[0] = static_cast<uint8_t>(value >> 8);
    to[1] = static_cast<uint8_t>(value);
}
inline void store_be32(uint8_t* to, uint32_t value) {
    to[0] = static_cast<uint8_t>(value >> 24);
    to[1] = static_cast<uint8_t>(value >> 16);
    to[2] = static_cast<uint8_t>(value >> 8);
    to[3] = static_cast<uint8_t>(value);
}
