// step.h - what happens in a simulation: a schedule is a list of small steps, so that it can be
// drawn from a seed, printed, shrunk by leaving steps out, and replayed from its text.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

enum class op : uint8_t {
    ROUND,
    SPEND,
    TIME,
    CLOCK,
    ROOM,
    OPEN,
    ASK,
    UPLOAD,
    FLOOD,
    CLOSE,
    COMMAND,
    ANSWER,
    DELIVER,
    TAKE,
    END,
    RESET,
    LINK,
    SAY,
    READ,
    SERVICE_END,
    SERVICE_RESET,
    FAIL,
    ORDER,
    STOP,
    BALLAST,
    SETTLE,
    CONTROL,
    REPORT,
    COUNT
};
constexpr size_t OP_COUNT = static_cast<size_t>(op::COUNT);

struct step {
    op what = op::ROUND;
    std::array<int64_t, 4> with = {};
};
using schedule = std::vector<step>;

struct op_description {
    std::string_view name;
    size_t arguments;
    std::string_view meaning;
};
const op_description& description(op what);

std::string text_of(const schedule& steps);
// False: a line is none of ours; `error` shows it.
bool schedule_read(std::string_view text, schedule* steps, std::string* error);

// What a seed means.
schedule schedule_drawn(uint64_t seed);
