// line.h - one direction of a line: what its rate, its delay, its queue and its losses do to
// packets.
//
// Packets wait in a queue, leave it one by one at the line's rate, as off a home router, are lost
// or not when they have left, and arrive a delay later, in order. Pure: the caller says what time
// it is, and never an earlier one than before.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <random>
#include <string>
#include <vector>

using std::chrono::nanoseconds;
using packet = std::vector<uint8_t>;

constexpr uint32_t LOSS_ALL = 1'000'000;

struct line_settings {
    int64_t rate = 0;                             // bit/s; 0: no limit, and so no queue
    nanoseconds delay{0};                         // of one direction
    uint32_t loss = 0;                            // of a million packets
    nanoseconds queue = std::chrono::seconds{1};  // what may wait, as time at this rate,
    int64_t queue_bytes = 0;                      // or in bytes, unless 0
    size_t largest = 65535;  // bytes; what is larger vanishes, and nobody is told
};

struct line_counts {
    uint64_t packets = 0, bytes = 0;  // that have arrived
    uint64_t lost = 0;                // by chance
    uint64_t refused = 0;             // by a full queue
    uint64_t too_large = 0;
    int64_t most_waiting = 0;  // bytes
};

class line {
   public:
    line(const line_settings& settings, uint32_t seed) : now_set(settings), chance(seed) {}

    // For all packets that have not left yet; the one that is leaving keeps its time.
    void set(const line_settings& settings, nanoseconds now);
    const line_settings& settings() const { return now_set; }

    void put(packet sent, nanoseconds now);
    // The next packet that has arrived by now.
    std::optional<packet> take(nanoseconds now);
    // When to ask again; nothing: not before the next put.
    std::optional<nanoseconds> next() const;

    const line_counts& counts() const { return counted; }

   private:
    struct flying {
        packet sent;
        nanoseconds arrives;
    };

    void advance(nanoseconds now);
    void leave();
    bool has_room(size_t size) const;

    line_settings now_set;
    // One draw a packet, whatever the loss: a change of it changes nothing for those behind.
    std::mt19937 chance;
    std::deque<packet> waiting;  // the first one is leaving
    int64_t waiting_bytes = 0;
    nanoseconds first_left{0};  // when the first one will have left
    std::deque<flying> under_way;
    line_counts counted;
};

// Takes settings as text into `to`: words like rate=5M delay=10ms loss=0.5% queue=200ms, in any
// order; the queue may be in bytes (queue=64k), max=1400 sets the largest packet. Empty, or what is
// wrong with the text, which then has changed nothing.
std::string line_settings_read(const std::string& text, line_settings& to);
