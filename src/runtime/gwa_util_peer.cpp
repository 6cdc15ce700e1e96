#include "runtime/gwa_util_peer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "runtime/gwa_util_time.h"

namespace {

constexpr int32_t SILENCE_LIMIT_S = 45;
constexpr uint32_t MS_PER_S = 1000;

}  // namespace

bool gwa_peer_judge(gwa_peer_watch* watch, const gwa_peer_state& state) {
    const auto silent_s = static_cast<uint32_t>(gwa_seconds_since(watch->since));
    if (!state.waiting || !watch->waiting || state.heard_s < silent_s) {
        watch->since = gwa_now_get();
    }
    watch->waiting = state.waiting;
    return state.closed || gwa_seconds_since(watch->since) >= SILENCE_LIMIT_S;
}

bool gwa_peer_is_gone(gwa_peer_watch* watch, int fd) {
    if (watch->looked == gwa_now_get()) {
        return false;
    }
    watch->looked = gwa_now_get();
    tcp_info info{};
    socklen_t size = sizeof info;
    if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &size) == -1) {
        return false;  // not for this socket, or not with this kernel
    }
    return gwa_peer_judge(watch, {.closed = info.tcpi_state == TCP_CLOSE,
                                  .waiting = info.tcpi_unacked > 0 || info.tcpi_probes > 0,
                                  .heard_s = info.tcpi_last_ack_recv / MS_PER_S});
}
