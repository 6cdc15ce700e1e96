#include "line.h"

#include <algorithm>
#include <utility>

namespace {

constexpr int64_t NS_PER_S = 1'000'000'000;
constexpr int64_t BITS = 8;

nanoseconds time_to_leave(size_t size, int64_t rate) {
    return nanoseconds{rate == 0 ? 0 : static_cast<int64_t>(size) * BITS * NS_PER_S / rate};
}

// In bytes. A fraction, because a long time at a high rate is beyond all whole numbers.
double queue_limit(const line_settings& settings) {
    const double time_s = std::chrono::duration<double>(settings.queue).count();
    return settings.queue_bytes != 0 ? static_cast<double>(settings.queue_bytes)
                                     : time_s * static_cast<double>(settings.rate) / BITS;
}

}  // namespace

void line::set(const line_settings& settings, nanoseconds now) {
    advance(now);
    now_set = settings;
}

// A packet finds room where nothing waits, however small the queue is.
bool line::has_room(size_t size) const {
    const int64_t then = waiting_bytes + static_cast<int64_t>(size);
    return waiting.empty() || now_set.rate == 0 ||
           static_cast<double>(then) <= queue_limit(now_set);
}

void line::put(packet sent, nanoseconds now) {
    advance(now);
    if (sent.size() > now_set.largest) {
        counted.too_large++;
    } else if (!has_room(sent.size())) {
        counted.refused++;
    } else {
        if (waiting.empty()) {
            first_left = now + time_to_leave(sent.size(), now_set.rate);
        }
        waiting_bytes += static_cast<int64_t>(sent.size());
        counted.most_waiting = std::max(counted.most_waiting, waiting_bytes);
        waiting.push_back(std::move(sent));
    }
}

// The first packet has left the queue, at first_left.
void line::leave() {
    packet sent = std::move(waiting.front());
    waiting.pop_front();
    waiting_bytes -= static_cast<int64_t>(sent.size());
    if (chance() % LOSS_ALL < now_set.loss) {
        counted.lost++;
    } else {
        under_way.push_back({std::move(sent), first_left + now_set.delay});
    }
}

void line::advance(nanoseconds now) {
    while (!waiting.empty() && first_left <= now) {
        leave();
        if (!waiting.empty()) {
            first_left += time_to_leave(waiting.front().size(), now_set.rate);
        }
    }
}

std::optional<packet> line::take(nanoseconds now) {
    advance(now);
    // Only the first one is looked at: a delay that has become shorter lets nobody overtake.
    if (under_way.empty() || under_way.front().arrives > now) {
        return std::nullopt;
    }
    packet arrived = std::move(under_way.front().sent);
    under_way.pop_front();
    counted.packets++;
    counted.bytes += arrived.size();
    return arrived;
}

// What leaves meanwhile arrives later still, and is looked at then.
std::optional<nanoseconds> line::next() const {
    if (!under_way.empty()) {
        return under_way.front().arrives;
    }
    if (!waiting.empty()) {
        return first_left + now_set.delay;
    }
    return std::nullopt;
}
