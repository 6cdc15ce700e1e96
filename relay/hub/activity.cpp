#include "hub/activity.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr int THIRDS_MAX = 'z' - '0';  // 2^24 times the least
constexpr double LEAST_RATE = 64;      // bytes a second

char graph_level(uint64_t bytes) {
    if (bytes == 0) {
        return '-';
    }
    const double rate = static_cast<double>(bytes) * 1000 / static_cast<double>(GRAPH_STEP.count());
    const double thirds = 3 * std::log2(std::max(rate / LEAST_RATE, 1.0));
    return static_cast<char>('0' + std::min(static_cast<int>(std::lround(thirds)), THIRDS_MAX));
}

}  // namespace

uint64_t rate_meter::look(uint64_t total, milliseconds passed) {
    const uint64_t moved = total - (total < seen ? 0 : seen);
    seen = total;
    rate = moved * 1000 / static_cast<uint64_t>(std::max<int64_t>(passed.count(), 1));
    return moved;
}

const char* happening_name(happening kind) {
    switch (kind) {
        case happening::CONNECTED: return "connected";
        case happening::LEFT: return "left";
        case happening::REPLACED: return "replaced";
        case happening::REFUSED: return "refused";
        case happening::HELD_BACK: return "held back";
        case happening::CUT: return "cut";
        case happening::CLOSED: return "closed";
        case happening::LOST: return "connection lost";
    }
    return "";
}

void activity::note(happening kind, std::string text) {
    const auto now = steady::now();
    if (!events.empty() && events.back().kind == kind && events.back().text == text) {
        ++events.back().times;
        events.back().at = now;
        return;
    }
    if (events.size() == EVENTS_MAX) {
        events.pop_front();
    }
    events.push_back({.at = now, .kind = kind, .text = std::move(text)});
}

void activity::note_second(const std::string& address, steady::time_point now) {
    note(happening::REFUSED, "a second login of its id, from " + address);
    twice_until = now + TWICE_TIME;
}

void activity::note_replaced(const std::string& address, steady::time_point now) {
    note(happening::REPLACED, "a new login of the same id from " + address);
    if (replaced != NEVER && now - replaced < TWICE_TIME) {
        twice_until = now + TWICE_TIME;
    }
    replaced = now;
}

void activity::count(uint64_t bytes, uint64_t at_step) {
    for (uint64_t passed = std::min<uint64_t>(at_step - step, graph.size()); passed > 0; --passed) {
        graph[(at_step - passed + 1) % graph.size()] = 0;
    }
    step = at_step;
    graph[step % graph.size()] += bytes;
}

std::string activity::graph_text() const {
    std::string text;
    for (uint64_t i = 1; i <= GRAPH_STEPS; ++i) {
        text += graph_level(graph[(step + i) % graph.size()]);
    }
    return text.find_first_not_of('-') == text.npos ? "" : text;
}
