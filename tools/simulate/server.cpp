#include "server.h"

#include <algorithm>
#include <cerrno>

namespace wire {

std::string number(uint32_t value) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8) {
        bytes += static_cast<char>(value >> shift);
    }
    return bytes;
}

uint32_t number_at(std::string_view bytes, size_t at) {
    uint32_t value = 0;
    for (size_t i = at; i < at + 4; i++) {
        value = value << 8 | static_cast<uint8_t>(bytes[i]);
    }
    return value;
}

std::string frame(uint16_t code, uint32_t stream, std::string_view payload, uint8_t version) {
    std::string bytes{static_cast<char>(version), HEADER, 0, static_cast<char>(code)};
    bytes += number(code == DATA ? 0 : 1) + number(stream);
    return (bytes += number(static_cast<uint32_t>(payload.size()))).append(payload);
}

std::string bad_frame(int64_t reason, std::string_view payload) {
    constexpr std::pair<size_t, char> CHANGES[] = {{0, 4},  {0, 0}, {1, 15},
                                                   {3, 13}, {3, 0}, {12, 1}};
    const auto& [at, value] = CHANGES[static_cast<size_t>(reason) % std::size(CHANGES)];
    std::string bytes = frame(DATA, 1, payload);
    bytes[at] = value;
    return bytes;
}

}  // namespace wire

std::string noise(size_t count) {
    static const std::string letters = [] {
        std::string made;
        uint64_t state = 1;
        for (int i = 0; i < 1 << 17; i++) {
            state = state * 6364136223846793005U + 1442695040888963407U;
            made += static_cast<char>(' ' + (state >> 33) % 95);
        }
        return made;
    }();
    static size_t at = 0;
    at = (at * 31 + 7919) % (letters.size() / 2);
    std::string made;
    while (made.size() < count) {
        made += letters.substr(at, count - made.size());
    }
    return made;
}

void relay_server::say(std::string_view bytes) {
    if (!ends) {
        said += bytes;
    }
}

void relay_server::deliver(size_t count) {
    if (socket->link.is_silent()) {
        return;
    }
    const size_t now = std::min({count, socket->receive_room(), said.size() - delivered});
    socket->arrive(std::string_view(said).substr(delivered, now));
    delivered += now;
    if (ends && has_said_all()) {
        socket->end();
    }
}

void relay_server::take(size_t count) {
    if (socket->link.is_silent()) {
        return;
    }
    heard += socket->take(count);
    size_t size = 0;
    while (heard.size() >= wire::HEADER &&
           heard.size() >= (size = wire::HEADER + wire::number_at(heard, 12))) {
        if (heard[3] == wire::HEARTBEAT) {
            heartbeats.push_back(wire::number_at(heard, wire::HEADER));
        }
        heard.erase(0, size);
    }
}

void relay_server::end() {
    ends = true;
    deliver(0);
}

void relay_server::reset() {
    is_gone = true;
    link(!socket->link.is_silent());
}

void relay_server::link(bool up) {
    socket->link_change(!up);
    if (up && is_gone) {
        socket->reset(ECONNRESET);
    }
}

void relay_server::answer(uint32_t wrong_by) {
    for (const uint32_t number : heartbeats) {
        say(wire::heartbeat(number + wrong_by));
    }
    heartbeats.clear();
}
