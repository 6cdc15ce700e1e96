#include "link_model.h"

#include <algorithm>

namespace {

// 53 s by a clock of whole seconds, from the first look on that finds bytes unacknowledged up to
// the first one behind that time; what happens between two looks may be missed.
constexpr int64_t SOONEST_US = 49'000'000;
constexpr int64_t LATEST_US = 59'000'000;
constexpr int64_t GAP_US = 2'500'000;  // a longer one spoils what was seen before

}  // namespace

bool link_model::is_gone(tcp_socket& server) {
    return server.dead || server.unanswered_us() >= SOONEST_US;
}

void link_model::comes_by(tcp_socket& server) {
    const int64_t now = the_time.now_us;
    since_us = now - came_us > GAP_US ? now : std::max(since_us, now - server.unanswered_us());
    came_us = now;
    if (now - since_us > LATEST_US) {
        broken("the server has acknowledged nothing for %d s, and the connection goes on",
               static_cast<int>((now - since_us) / 1'000'000));
    }
}
