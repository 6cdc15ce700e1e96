#include "control_model.h"

#include <algorithm>
#include <cerrno>

#include "runtime/gwa_util_time.h"
#include "server.h"

namespace {

constexpr int64_t REST_LIMIT_US = 10'000'000;
constexpr int WAIT_MS = 2000;
constexpr int MISSES_MAX = 3;

bool is_whole_order(const std::string& text) {
    return text.starts_with("host1host2host3host4host5 \"") &&
           text.find("\" port1port2port3port4port5 \"") != std::string::npos && text.ends_with('"');
}

}  // namespace

control_model::control_model(gwa_connection_cntl* connection, tcp_socket& server)
    : cntl(connection),
      remote(&server),
      want(wire::HEADER),
      heartbeat_seq(connection->heartbeat.seq),
      last_out(gwa_now_get()),
      last_in(gwa_moment_never()) {}

// ---- Input ----

void control_model::begin(input what, size_t bytes, int64_t limit_s) {
    reading = what;
    want = bytes;
    have.clear();
    tried = false;
    limit_us = the_time.now_us + limit_s * GWA_US_PER_SECOND;
    limit_wall_us = limit_us + the_time.set_us;
}

// The frame is over: a heartbeat's answer is no longer waited for, whatever frame it was.
void control_model::frame_done() {
    answer_outstanding = false;
    begin(input::HEADER, wire::HEADER);
}

// A heartbeat's number and what is thrown away have their time: after a look that found nothing.
void control_model::give_up_late_step() {
    const bool timed = reading == input::HEARTBEAT || reading == input::DISCARD;
    if (!timed || !tried ||
        (the_time.now_us < limit_us && the_time.now_us + the_time.set_us < limit_wall_us)) {
        return;
    }
    step_failed();
}

// The payload is not there and will not be waited for any longer.
void control_model::step_failed() {
    if (reading == input::HEARTBEAT) {
        answer_missed();
    } else if (reading == input::DISCARD) {
        last_in = gwa_now_get();  // counted as read
    }
    frame_done();
}

void control_model::received(tcp_socket&, size_t wanted, std::string_view bytes, int error) {
    must_have_restarted();
    if (wanted != want - have.size()) {
        broken("the daemon asks for %zu bytes of a step of which %zu are missing", wanted,
               want - have.size());
    }
    if (!expected.empty()) {
        broken("the daemon reads on without having done: %s", expected.c_str());
    }
    if (!bytes.empty()) {
        have += bytes;
        moved_us = the_time.now_us;
        if (have.size() == want) {
            reading == input::HEADER ? header_done() : payload_done();
        }
    } else if (error == EAGAIN) {
        tried = true;
        if (reading == input::HEADER && !have.empty() &&
            the_time.now_us - moved_us >= REST_LIMIT_US) {
            have.clear();
        }
    } else if (reading == input::HEADER) {
        restart_reason = "the server has gone";
    } else {
        step_failed();
    }
}

void control_model::header_done() {
    const std::string header = have;
    const auto version = static_cast<uint8_t>(header[0]);
    const uint32_t length = wire::number_at(header, 12);
    code = wire::number_at(header, 0) & 0xffff;
    if (!answer_outstanding) {
        last_in = gwa_now_get();
    }
    const bool good = version >= 1 && version <= 3 && header[1] == wire::HEADER &&
                      code >= wire::DATA && code <= wire::PORT_INFO && length <= wire::PAYLOAD_MAX;
    switch (good ? code : 0) {
        case wire::HEARTBEAT: return begin(input::HEARTBEAT, 4, 10);
        case wire::CLOSE_CONNECTION: restart_reason = "the server has said so"; return frame_done();
        case wire::ORDER: return length == 0 ? frame_done() : begin(input::PAYLOAD, length);
        case wire::SESSION_ID: return length == 32 ? begin(input::PAYLOAD, length) : frame_done();
        case wire::REPORT_TIMES: return length == 8 ? begin(input::PAYLOAD, length) : frame_done();
        case wire::PRIVACY:
        case wire::STATUS:
            last_in = gwa_now_get();
            return length == 0 ? frame_done() : begin(input::DISCARD, length, 120);
        default: return frame_done();  // what follows is taken for headers
    }
}

void control_model::payload_done() {
    last_in = gwa_now_get();
    if (reading == input::HEARTBEAT) {
        heartbeat_answered();
    } else if (code == wire::SESSION_ID) {
        expected = "session " + have;
    } else if (code == wire::REPORT_TIMES) {
        expected = "times " + std::to_string(wire::number_at(have, 0)) + " " +
                   std::to_string(wire::number_at(have, 4));
    } else if (code == wire::ORDER && is_whole_order(have)) {
        const size_t host = have.find('"') + 1;
        const size_t port = have.rfind('"', have.size() - 2) + 1;
        expected = "order " + have.substr(host, have.find('"', host) - host) + " " +
                   have.substr(port, have.size() - 1 - port);
    }
    frame_done();
}

void control_model::heartbeat_answered() {
    if (wire::number_at(have, 0) + 1 == heartbeat_seq) {
        misses = 0;
    } else {
        answer_missed();
    }
}

void control_model::answer_missed() {
    if (++misses == MISSES_MAX) {
        misses = 0;
        restart_reason = "three answers are missing";
    }
}

void control_model::effect(const std::string& what) {
    if (what != expected) {
        broken("the daemon does: %s; it must do: %s", what.c_str(), expected.c_str());
    }
    expected.clear();
}

// ---- Output ----

void control_model::report_queued(std::string bytes) {
    constexpr size_t REPORTS_MAX = 256;
    const auto reports = static_cast<size_t>(
        std::count_if(queue.begin(), queue.end(), [](const frame& one) { return !one.heartbeat; }));
    if (reports < REPORTS_MAX) {
        queue.push_back({std::move(bytes)});
    }
}

control_model::silence control_model::silent() const {
    if (gwa_seconds_since(last_out) > 60) {
        return silence::OUT;
    }
    return gwa_seconds_since(last_in) > 240 ? silence::IN : silence::NONE;
}

bool control_model::heartbeat_is_queued() const {
    return std::any_of(queue.begin(), queue.end(), [](const frame& one) { return one.heartbeat; });
}

void control_model::heartbeat_insert() {
    const bool behind_first = !queue.empty() && queue.front().sent > 0;
    queue.insert(queue.begin() + (behind_first ? 1 : 0), {wire::heartbeat(heartbeat_seq++), true});
}

void control_model::sent(tcp_socket&, std::string_view offered, ssize_t taken, int error) {
    must_have_restarted();
    if (answer_outstanding) {
        broken("the daemon sends while it must wait for the answer to its heartbeat");
    }
    const auto is_next = [&] {
        return !queue.empty() &&
               offered == std::string_view(queue.front().bytes).substr(queue.front().sent);
    };
    if (!is_next() && !heartbeat_is_queued() && silent() != silence::NONE) {
        built = silent();
        heartbeat_insert();
    }
    if (!is_next()) {
        broken("the daemon sends %zu bytes other than those that must come next, of %zu",
               offered.size(), queue.empty() ? 0 : queue.front().bytes.size() - queue.front().sent);
    }
    if (taken == -1) {
        restart_reason = error == EAGAIN ? restart_reason : "sending has failed";
        return;
    }
    last_out = gwa_now_get();
    queue.front().sent += static_cast<size_t>(taken);
    if (queue.front().sent == queue.front().bytes.size()) {
        answer_outstanding = queue.front().heartbeat;
        queue.pop_front();
    }
}

void control_model::looked(tcp_socket&, int queued) {
    if (queued == -1) {
        restart_reason = "the look at the send buffer has failed";
    }
}

// ---- The loop ----

void control_model::before(call what, tcp_socket*) {
    give_up_late_step();
    server_is_gone = what == call::GETSOCKOPT && link_model::is_gone(*remote);
    if (reading != input::HEADER) {
        link.is_busy();  // oddity 30: with the rest of a payload
    } else if (what == call::GETSOCKOPT || what == call::EPOLL_WAIT || answer_outstanding) {
        link.comes_by(*remote);
    }
    if (what == call::EPOLL_WAIT) {
        pass_ended();
    }
}

// The loop begins anew: behind the output, the clock has been looked at.
void control_model::pass_ended() {
    must_have_restarted();
    if (answer_outstanding || reading != input::HEADER) {
        broken("the loop goes on within a frame");
    }
    const silence now = built != silence::NONE ? built : silent();
    if (!first_wait && now != silence::NONE) {
        if (built == silence::NONE && !heartbeat_is_queued()) {
            heartbeat_insert();  // behind a frame that the socket did not take
        }
        if (now == silence::IN) {
            last_in = gwa_moment_before(gwa_now_get(), 180);
        }
    }
    built = silence::NONE;
    first_wait = false;
    if (cntl->reports != queue.size() - (heartbeat_is_queued() ? 1 : 0)) {
        broken("%u reports are counted, %zu frames wait", cntl->reports.load(), queue.size());
    }
}

void control_model::waits(int timeout_ms) {
    if (timeout_ms > WAIT_MS) {
        broken("a wait of %d ms", timeout_ms);
    }
    if (remote->arrived.size() >= remote->low_water && !remote->listed && !remote->read_failed) {
        broken("a wait of %d ms, while %zu bytes of the server have arrived", timeout_ms,
               remote->arrived.size());
    }
    if (!queue.empty() && !remote->wants_room && !remote->dead && queue.front().waits++ > 0) {
        broken("a second wait of %d ms, while a frame could leave", timeout_ms);
    }
}

void control_model::wait_failed(int error) {
    if (error != EINTR) {
        restart_reason = "the poller has failed";
    }
}

void control_model::restarted() {
    give_up_late_step();
    if (restart_reason == nullptr && !server_is_gone) {
        broken("the daemon restarts without a reason");
    }
}

void control_model::must_have_restarted() const {
    if (restart_reason != nullptr) {
        broken("the daemon does not restart, although: %s", restart_reason);
    }
}

bool control_model::is_quiet() const {
    // Once out of step with the server, the daemon may wait for the rest of a frame for ever.
    const bool waits_for_server = answer_outstanding || reading != input::HEADER;
    return (remote->arrived.empty() && remote->sent.empty() && (queue.empty() || waits_for_server));
}

void control_model::must_be_finished() const {
    if (!is_quiet()) {
        broken(
            "the server reads and answers, and yet %zu frames do not leave, or %zu bytes are "
            "not read",
            queue.size(), remote->arrived.size());
    }
}
