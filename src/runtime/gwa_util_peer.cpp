#include "runtime/gwa_util_peer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>

#include "runtime/gwa_util_time.h"

namespace {

// Bytes are sent again after 0.2 s, and each time after twice as long: the ninth time after 51 s.
constexpr int32_t SILENCE_LIMIT_S = 53;
constexpr uint32_t PROBES_LOST_MAX = 1;  // of which the next comes up to two minutes later
// Between two looks, of which the control connection takes one in 2.1 s: after a longer gap, what
// was seen before says nothing.
constexpr int32_t GAP_S = 3;
constexpr uint32_t MS_PER_S = 1000;

}  // namespace

bool gwa_peer_judge(gwa_peer_watch* watch, const gwa_peer_state& state) {
    // Bytes of a living peer acknowledge what is on its way, but not a probe.
    const uint32_t heard_s = state.unacknowledged
                                 ? state.acknowledged_s
                                 : std::min(state.acknowledged_s, state.received_s);
    const bool waiting = state.unacknowledged || state.probes > PROBES_LOST_MAX;
    const bool saw_it_wait = watch->waiting && gwa_seconds_since(watch->looked) <= GAP_S;
    const auto silent_s = static_cast<uint32_t>(gwa_seconds_since(watch->since));
    if (!waiting || !saw_it_wait) {
        watch->since = gwa_now_get();
    } else if (heard_s < silent_s) {
        watch->since = gwa_moment_before(gwa_now_get(), static_cast<int32_t>(heard_s));
    }
    watch->waiting = waiting;
    watch->looked = gwa_now_get();
    return state.closed || gwa_seconds_since(watch->since) >= SILENCE_LIMIT_S;
}

bool gwa_peer_is_gone(gwa_peer_watch* watch, int fd) {
    if (watch->looked == gwa_now_get()) {
        return false;
    }
    tcp_info info{};
    socklen_t size = sizeof info;
    if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &size) == -1) {
        *watch = {.looked = gwa_now_get()};  // what was seen before says nothing
        return false;                        // not for this socket, or not with this kernel
    }
    return gwa_peer_judge(watch, {.closed = info.tcpi_state == TCP_CLOSE,
                                  .unacknowledged = info.tcpi_unacked > 0,
                                  .probes = info.tcpi_probes,
                                  .acknowledged_s = info.tcpi_last_ack_recv / MS_PER_S,
                                  .received_s = info.tcpi_last_data_recv / MS_PER_S});
}
