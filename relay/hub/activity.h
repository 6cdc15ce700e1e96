// activity.h - what has happened on a device lately: how fast its bytes went, and what somebody who
// looks after it would like to know.
#pragma once

#include <array>
#include <deque>
#include <string>

#include "base/options.h"

constexpr milliseconds LOOK_INTERVAL{1000};
constexpr milliseconds GRAPH_STEP{5000};
constexpr size_t GRAPH_STEPS = 60;
constexpr size_t EVENTS_MAX = 24;

// Two logins of one id, one in place of the other, mean that the device has started anew. When it
// happens again within this time, two devices take turns.
constexpr milliseconds TWICE_TIME{600'000};

// Bytes a second since the last look, of a count that begins anew now and then.
struct rate_meter {
    uint64_t seen = 0, rate = 0;
    // What has been added since the last look, which was so long ago.
    uint64_t look(uint64_t total, milliseconds passed);
};

enum class happening : uint8_t {
    CONNECTED,
    LEFT,
    REPLACED,  // by another login of its id
    REFUSED,   // a request, by the relay
    HELD_BACK,
    CUT,
    CLOSED,  // a stream, by somebody on the page
    LOST,    // a data connection
};
const char* happening_name(happening kind);

struct device_event {
    steady::time_point at;  // for the last time
    happening kind;
    std::string text;
    uint32_t times = 1;
};

struct activity {
    rate_meter in, out;                           // from the device, to it
    std::array<uint64_t, GRAPH_STEPS + 1> graph;  // bytes of both in each step
    uint64_t step = 0;                            // the one that is being filled
    std::deque<device_event> events;              // oldest first
    steady::time_point replaced = NEVER;          // for the last time
    steady::time_point twice_until = NEVER;       // so long its id counts as used by two

    activity() : graph() {}
    // Of the same in a row, only how often and when the last one was.
    void note(happening kind, std::string text);
    // Another one of its id has been turned away.
    void note_second(const std::string& address, steady::time_point now);
    void note_replaced(const std::string& address, steady::time_point now);
    bool used_twice(steady::time_point now) const {
        return twice_until != NEVER && now < twice_until;
    }
    void count(uint64_t bytes, uint64_t at_step);
    // A character for each step that is over, oldest first: '-' for nothing, then from '0' a third
    // of an octave each.
    // Empty when nothing has moved.
    std::string graph_text() const;
};
