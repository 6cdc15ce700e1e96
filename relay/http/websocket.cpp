#include "http/websocket.h"

#include <algorithm>

namespace {

constexpr size_t SHORTEST = 2, MASK_SIZE = 4;
constexpr uint8_t OPCODE = 0x0f, CLOSE = 0x08, MASKED = 0x80, LENGTH = 0x7f;
constexpr uint8_t LENGTH_IN_2 = 126, LENGTH_IN_8 = 127;

size_t length_size(uint8_t second) {
    const uint8_t length = second & LENGTH;
    return length == LENGTH_IN_8 ? 8 : length == LENGTH_IN_2 ? 2 : 0;
}

}  // namespace

// As far as it is known: the second byte says more.
size_t websocket_side::header_size() const {
    return known < SHORTEST
               ? SHORTEST
               : SHORTEST + length_size(header[1]) + ((header[1] & MASKED) != 0 ? MASK_SIZE : 0);
}

void websocket_side::after_header() {
    const size_t size = length_size(header[1]);
    left = size == 0 ? header[1] & LENGTH : 0;
    for (size_t i = 0; i < size; ++i) {
        left = left << 8 | header[SHORTEST + i];
    }
    closing = (header[0] & OPCODE) == CLOSE;
}

void websocket_side::take(std::string_view bytes) {
    while (!bytes.empty() && !is_closed) {
        if (left > 0) {
            const size_t more = std::min<uint64_t>(left, bytes.size());
            left -= more;
            bytes.remove_prefix(more);
        } else {
            header[known++] = static_cast<uint8_t>(bytes.front());
            bytes.remove_prefix(1);
            if (known == header_size()) {
                after_header();
                known = 0;
            }
        }
        is_closed = closing && left == 0 && known == 0;
    }
}
