// draw.cpp - what a seed means. Each schedule has moods of its own: which steps it takes at all and
// how often, how large things are, how many streams there are. Thus some are all about one thing.
#include <algorithm>
#include <cerrno>
#include <initializer_list>
#include <span>

#include "network.h"
#include "step.h"

namespace {

struct dice {
    uint64_t state;
    uint64_t next() {  // splitmix64
        uint64_t z = state += 0x9e3779b97f4a7c15U;
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9U;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebU;
        return z ^ (z >> 31);
    }
    int64_t below(int64_t limit) {
        return static_cast<int64_t>(next() % static_cast<uint64_t>(std::max<int64_t>(limit, 1)));
    }
    bool one_in(int64_t count) { return below(count) == 0; }
    int64_t of(std::initializer_list<int64_t> values) {
        return values.begin()[below(static_cast<int64_t>(values.size()))];
    }
};

struct mood {
    std::array<int64_t, OP_COUNT> weights{};
    int64_t total = 0;
    int64_t ids = 1;
    int64_t size = 1;  // of what is said, in powers of ten
    bool sound_ports = false;
    bool whole = false;  // what is said arrives at once
    bool patient = false;
};

// How often a step comes, where it comes at all, and in how many of four moods that is.
struct habit {
    op what;
    int64_t weight;
    int64_t moods;
};
constexpr habit HABITS[] = {
    {op::ROUND, 40, 4},   {op::TIME, 6, 3},  {op::CLOCK, 3, 1},       {op::ROOM, 2, 2},
    {op::OPEN, 14, 4},    {op::ASK, 8, 2},   {op::UPLOAD, 20, 3},     {op::FLOOD, 3, 1},
    {op::STOP, 1, 1},     {op::CLOSE, 6, 3}, {op::COMMAND, 3, 1},     {op::ANSWER, 8, 3},
    {op::DELIVER, 24, 4}, {op::TAKE, 14, 3}, {op::END, 1, 1},         {op::RESET, 1, 1},
    {op::SAY, 20, 3},     {op::READ, 14, 3}, {op::SERVICE_END, 2, 1}, {op::SERVICE_RESET, 2, 1},
    {op::LINK, 2, 1},     {op::FAIL, 3, 1},  {op::ORDER, 1, 1},       {op::BALLAST, 2, 1},
    {op::SETTLE, 1, 3},
};

constexpr habit CONTROL_HABITS[] = {
    {op::ROUND, 40, 4},  {op::TIME, 6, 3},     {op::CLOCK, 3, 1},   {op::COMMAND, 14, 3},
    {op::ANSWER, 12, 3}, {op::DELIVER, 24, 4}, {op::TAKE, 20, 4},   {op::END, 1, 1},
    {op::RESET, 1, 1},   {op::ORDER, 4, 2},    {op::REPORT, 10, 3}, {op::FAIL, 2, 1},
    {op::SETTLE, 1, 3},  {op::ROOM, 1, 2},     {op::LINK, 2, 1},
};

mood mood_drawn(dice* chance, bool control) {
    mood made;
    const std::span<const habit> habits = control ? std::span<const habit>(CONTROL_HABITS) : HABITS;
    for (const habit& one : habits) {
        if (chance->below(4) < one.moods) {
            made.weights[static_cast<size_t>(one.what)] =
                one.weight * (1 + chance->below(4)) * (1 + chance->below(2));
        }
    }
    for (const int64_t weight : made.weights) {
        made.total += weight;
    }
    made.ids = chance->of({1, 2, 3, 8});
    made.size = chance->below(7);
    made.sound_ports = !chance->one_in(3);
    made.whole = chance->one_in(3);
    made.patient = chance->one_in(4);
    return made;
}

op op_drawn(const mood& mind, dice* chance) {
    int64_t at = chance->below(mind.total);
    size_t i = 0;
    while (at >= mind.weights[i]) {
        at -= mind.weights[i++];
    }
    return static_cast<op>(i);
}

int64_t size_drawn(const mood& mind, dice* chance) {
    constexpr int64_t LIMITS[] = {2, 40, 1000, 8177, 30000, 200000, 200000};
    if (chance->one_in(8)) {
        return chance->of({1, 8175, 8176, 8177, 16352});
    }
    return 1 + chance->below(LIMITS[mind.size]);
}

int64_t part_drawn(const mood& mind, dice* chance) {
    if (mind.whole || chance->one_in(3)) {
        return 0;
    }
    return chance->one_in(2) ? chance->of({1, 2, 15, 16, 17, 20, 4096, 8192})
                             : 1 + chance->below(chance->of({40, 1000, 40000, 130000}));
}

int64_t error_drawn(dice* chance) {
    return chance->of(
        {ECONNRESET, EPIPE, ETIMEDOUT, ENOBUFS, EINTR, EHOSTUNREACH, ENOMEM, ECONNREFUSED, EMFILE});
}

using numbers = std::array<int64_t, 4>;

// What the server says, or somebody to it.
numbers said_drawn(op what, const mood& mind, dice* chance) {
    const int64_t id = chance->below(mind.ids);
    const int64_t priority = chance->of({0, 1, 4, 4, 9, -1});
    const int64_t port =
        mind.sound_ports ? chance->below(3) : chance->below(static_cast<int64_t>(port_kind::COUNT));
    switch (what) {
        case op::OPEN: return {id, port, priority, chance->one_in(2) ? 0 : chance->below(8000)};
        case op::ASK: return {id, chance->one_in(2) ? 0 : chance->below(11), priority};
        case op::UPLOAD: return {id, std::min<int64_t>(size_drawn(mind, chance), 8176)};
        case op::FLOOD: return {id, 1 + chance->below(200), chance->of({0, 1, 1, 30, 8176})};
        case op::COMMAND: return {chance->below(15), chance->below(300)};
        case op::ORDER: return {chance->below(6)};
        case op::REPORT:
            return {1 + chance->below(chance->of({30, 8176})), chance->one_in(8) ? 300 : 1};
        case op::ANSWER: return {chance->one_in(10) ? chance->of({1, -1, 1000}) : 0};
        case op::SAY: return {id, size_drawn(mind, chance)};
        case op::READ: return {id, part_drawn(mind, chance)};
        default: return {id};
    }
}

step step_drawn(const mood& mind, dice* chance) {
    const op what = op_drawn(mind, chance);
    switch (what) {
        case op::ROUND: {
            const bool long_one = mind.patient && chance->one_in(4);
            return {what, {1 + chance->below(long_one ? 300 : 5)}};
        }
        case op::TIME:
            return {what,
                    {chance->of({1, 50, 1000, 2000, 9000, 11000, 31000, 61000, 61000, 121000,
                                 181000, 241000, 301000, 601000})}};
        case op::CLOCK:
            return {what, {chance->of({-100000, -3600, -9, -1, 1, 9, 200, 3600, 100000})}};
        case op::ROOM:
            return {what,
                    {chance->of({1, 20, 100, 3000, 8192, 40000, 131072, 1 << 20}),
                     chance->of({1, 20, 100, 3000, 8192, 40000, 131072})}};
        case op::DELIVER:
        case op::TAKE: return {what, {part_drawn(mind, chance)}};
        case op::FAIL: {
            // Whatever ends the daemon takes a process of its own.
            const call last = chance->one_in(5) ? call::COUNT : call::MALLOC;
            return {what,
                    {chance->below(static_cast<int64_t>(last)), error_drawn(chance),
                     chance->one_in(4) ? chance->below(60) : chance->below(4)}};
        }
        case op::LINK: return {what, {chance->below(2)}};
        case op::BALLAST: {
            const int64_t limit = chance->of({0, 0, 4 << 20, 5 << 20});
            return {what, {limit - chance->of({0, 1, 8192, 20000, 200000})}};
        }
        default: return {what, said_drawn(what, mind, chance)};
    }
}

// Uploads to services that take little or nothing, while memory is short.
schedule siege_drawn(const mood& mind, dice* chance) {
    schedule steps{{op::BALLAST, {(5 << 20) + chance->of({0, 8192})}}};
    for (int64_t streams = 1 + chance->below(3); streams > 0; streams--) {
        const int64_t id = chance->below(mind.ids);
        steps.push_back({op::OPEN, {id, 0, 4, 0}});
        steps.push_back({op::FLOOD, {id, 1 + chance->below(3), 8176}});
    }
    steps.push_back({op::DELIVER, {0}});
    steps.push_back({op::ROUND, {3}});
    for (int64_t looks = 1 + chance->below(7); looks > 0; looks--) {
        steps.push_back({op::TIME, {chance->of({29000, 30000, 31000})}});
        if (!chance->one_in(3)) {
            steps.push_back({op::READ, {chance->below(mind.ids), chance->of({1, 100, 5000})}});
        }
        steps.push_back({op::ROUND, {1 + chance->below(2)}});
    }
    return steps;
}

// The server stops reading while services talk, closes one of them, and reads a part.
schedule jam_drawn(dice* chance) {
    schedule steps{{op::ROOM, {chance->of({20, 3000, 131072, 131072}), 131072}},
                   {op::ORDER, {}},
                   {op::ROUND, {1}},
                   {op::OPEN, {0, 0, 4, 0}},
                   {op::OPEN, {1, 0, chance->of({1, 4, 9}), 0}},
                   {op::DELIVER, {0}},
                   {op::ROUND, {3}}};
    if (chance->one_in(2)) {
        steps.push_back({op::BALLAST, {(4 << 20) - chance->of({0, 8192, 40000, 200000})}});
    }
    steps.push_back({op::SAY, {0, chance->of({20000, 180000, 240000})}});
    steps.push_back({op::SAY, {1, chance->of({0, 0, 1, 30000})}});
    steps.push_back({op::ROUND, {chance->of({1, 2, 20})}});
    steps.push_back({op::FLOOD, {1, chance->of({0, 0, 64, 100}), 1}});
    steps.push_back({op::CLOSE, {0}});
    steps.push_back({op::DELIVER, {0}});
    steps.push_back({op::ROUND, {chance->of({1, 3})}});
    steps.push_back({op::TAKE, {chance->of({0, 1, 50000, 70000})}});
    steps.push_back({op::ROUND, {chance->of({1, 3})}});
    steps.push_back({op::SAY, {1, 100}});
    steps.push_back({op::ROUND, {5}});
    return steps;
}

// The link to the server goes silent, idle or not, and comes back or not.
schedule silence_drawn(const mood& mind, dice* chance) {
    schedule steps{{op::SPEND, {chance->below(20000)}}, {op::LINK, {0}}};
    if (chance->one_in(2)) {
        steps.push_back({op::SAY, {chance->below(mind.ids), size_drawn(mind, chance)}});
        steps.push_back({op::REPORT, {1 + chance->below(300), 1}});
    }
    steps.push_back({op::SPEND, {chance->of({5000, 40000, 70000, 140000, 400000})}});
    if (chance->one_in(2)) {
        steps.push_back({op::LINK, {1}});
        steps.push_back({op::SPEND, {chance->of({1000, 70000})}});
    }
    return steps;
}

}  // namespace

schedule schedule_drawn(uint64_t seed) {
    dice chance{seed * 0x632be59bd9b4e019U + 1};
    const bool control = chance.one_in(4);
    const mood mind = mood_drawn(&chance, control);
    schedule steps;
    const int64_t count = 10 + chance.below(chance.of({30, 100, 300}));
    if (control) {
        steps.push_back({op::CONTROL, {}});
    } else if (chance.one_in(2)) {
        steps.push_back(
            {op::ROOM, {chance.of({20, 3000, 40000, 131072}), chance.of({20, 3000, 131072})}});
        steps.push_back({op::ORDER, {}});  // the next connection has it
        steps.push_back({op::ROUND, {1}});
    }
    while (std::ssize(steps) < count) {
        if (!control && chance.one_in(400)) {
            const schedule siege = siege_drawn(mind, &chance);
            steps.insert(steps.end(), siege.begin(), siege.end());
        }
        if (!control && chance.one_in(400)) {
            const schedule jam = jam_drawn(&chance);
            steps.insert(steps.end(), jam.begin(), jam.end());
        }
        if (chance.one_in(400)) {
            const schedule silence = silence_drawn(mind, &chance);
            steps.insert(steps.end(), silence.begin(), silence.end());
        }
        steps.push_back(step_drawn(mind, &chance));
    }
    if (!chance.one_in(4)) {
        steps.push_back({op::SETTLE, {}});
    }
    return steps;
}
