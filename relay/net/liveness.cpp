#include "net/liveness.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>

namespace {

constexpr int PROBES = 3;
constexpr int PROBES_SHARE = 8;          // of the limit: the pause after each probe
constexpr unsigned PROBES_LOST_MAX = 1;  // of a shut window, of which the next comes much later
constexpr milliseconds GAP{3000};  // between two looks; what was seen before says nothing then

}  // namespace

void liveness_watch(liveness& its, int fd, milliseconds limit) {
    its.limit = limit;
    const int limit_s = static_cast<int>(limit / std::chrono::seconds(1));
    const int interval_s = std::max(limit_s / PROBES_SHARE, 1);
    const std::pair<int, int> settings[] = {
        {TCP_KEEPIDLE, std::max(limit_s - PROBES * interval_s, 1)},
        {TCP_KEEPINTVL, interval_s},
        {TCP_KEEPCNT, PROBES}};
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    for (const auto& [name, value] : settings) {
        setsockopt(fd, IPPROTO_TCP, name, &value, sizeof value);
    }
}

bool liveness_judge(liveness& its, steady::time_point now, const liveness_state& state) {
    const bool looked_away = now - its.looked > GAP;  // and who did not run did not wait either
    its.looked = now;
    if (!state.unacknowledged && state.probes <= PROBES_LOST_MAX) {
        its.since = NEVER;
        return false;
    }
    // Bytes of a living device acknowledge what is on its way, but not a probe.
    const milliseconds silent =
        state.unacknowledged ? state.acknowledged : std::min(state.acknowledged, state.received);
    if (its.since == NEVER || looked_away || now - silent > its.since) {
        its.since = now;
    }
    return now - its.since >= its.limit;
}

bool liveness_is_over(liveness& its, int fd, steady::time_point now) {
    tcp_info info{};
    socklen_t size = sizeof info;
    return its.limit > milliseconds{} && getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 &&
           liveness_judge(its, now,
                          {.unacknowledged = info.tcpi_unacked > 0,
                           .probes = info.tcpi_probes,
                           .acknowledged = milliseconds(info.tcpi_last_ack_recv),
                           .received = milliseconds(info.tcpi_last_data_recv)});
}
