#include "data_model.h"

#include <algorithm>
#include <cerrno>

#include "runtime/gwa_util_time.h"

namespace {

constexpr uint32_t MEMORY_LIMIT = 4 << 20;
constexpr int WAIT_HELD_MS = 5;
constexpr int WAIT_BUSY_MS = 100;
constexpr int WAIT_IDLE_MS = 1000;

// What the memory figure counts for a piece of so many bytes: powers of two from 32 to 8192.
uint32_t rounded(size_t bytes) {
    size_t size = 32;
    while (size < bytes && size < 8192) {
        size *= 2;
    }
    return static_cast<uint32_t>(std::max(size, bytes));
}
const uint32_t NODE = rounded(40);
const uint32_t STREAM = rounded(108);

}  // namespace

data_model::data_model(gwa_connection_data* connection, tcp_socket& server)
    : conn(connection),
      remote(&server),
      counted(gwa_counter_get(connection->traffic.bytes_in)),
      heartbeat_seq(connection->heartbeat.seq),
      heartbeat_resp(heartbeat_seq),
      last_out(gwa_now_get()),
      last_in(gwa_now_get()),
      last_check(gwa_now_get()) {}

uint32_t data_model::memory() const {
    uint32_t sum = ballast + (reading == input::PAYLOAD ? rounded(want) : 0);
    for (const model_frame& frame : queue) {
        sum += frame.kind == model_frame::kind::HEARTBEAT ? 0 : rounded(frame.cost) + NODE;
    }
    for (const auto& [id, stream] : streams) {
        sum += STREAM;
        for (const model_stream::piece& piece : stream.waiting) {
            sum += rounded(piece.bytes.size()) + NODE;
        }
    }
    return sum;
}

uint32_t data_model::memory_with_request(size_t payload_size) const {
    return memory() + rounded(payload_size) + STREAM;
}

size_t data_model::frames() const {
    return static_cast<size_t>(std::count_if(queue.begin(), queue.end(), [](const auto& frame) {
        return frame.kind != model_frame::kind::HEARTBEAT;
    }));
}

void data_model::before(call what, tcp_socket* socket) {
    const bool freed = what == call::EPOLL_ADD && socket == remote && remote->table != nullptr;
    const bool within_discard = reading == input::EXTRA_DISCARD && unread.size() < want;
    if (!over && !(freed && within_discard)) {
        catch_up();
    }
    over = over || freed;
    server_is_gone = server_is_gone || (what == call::GETSOCKOPT && link_model::is_gone(*remote));
    if (what == call::EPOLL_WAIT) {
        waiting_begins = false;
    }
}

void data_model::round_begins() {
    waiting_begins = true;
    moved = waited = progressed = server_is_gone = others_read = false;
    link.comes_by(*remote);
    events_before = the_network.events;
}

void data_model::round_ended(bool goes_on) {
    if (!goes_on) {
        if (close_reason == nullptr && !server_is_gone) {
            broken("the connection closes without a reason");
        }
        return;
    }
    catch_up();
    if (close_reason != nullptr) {
        broken("the connection goes on after: %s", close_reason);
    }
    if (!to_close.empty()) {
        broken("a stream that the server has closed is still there");
    }
    begun_s = uploads_full() ? -1 : begun_s;
    excused = false;
    probe();
    judge_closed_streams();
    drop_stale();
    judge_hold(uploads_full());
    judge_turns();
    if (gwa_connection_memory(conn) != memory()) {
        broken("the memory figure is %u, what is held makes %u", gwa_connection_memory(conn),
               memory());
    }
    judge_counts();
    const bool woken = !waited;
    // Who says something when it needs its turn only gets into line.
    const bool lines_up = the_network.events != events_before &&
                          std::any_of(streams.begin(), streams.end(), [this](const auto& one) {
                              return !one.second.socket->arrived.empty() && needs_turn(one.second);
                          });
    idle_wakeups = woken && !moved && !lines_up ? idle_wakeups + 1 : 0;
    if (idle_wakeups > 1) {
        broken("two rounds in a row wake up and find nothing to do");
    }
}

void data_model::judge_counts() {
    if (conn->output.count != frames() || conn->streams.waiting != waiting_bytes() ||
        static_cast<size_t>(conn->streams.count) != streams.size()) {
        broken("%u frames, %u bytes for services, %d streams are counted; must be %zu, %llu, %zu",
               conn->output.count.load(), conn->streams.waiting, conn->streams.count.load(),
               frames(), static_cast<unsigned long long>(waiting_bytes()), streams.size());
    }
    const size_t in_turn = frames_in_turn();
    const auto of_streams =
        static_cast<size_t>(std::count_if(queue.begin(), queue.end(), [](const model_frame& frame) {
            return frame.kind == model_frame::kind::STREAM;
        }));
    if (conn->output.in_turn < in_turn || conn->output.in_turn > of_streams) {
        broken("%u frames are counted as read in turns, of %zu; at least %zu were",
               conn->output.in_turn, of_streams, in_turn);
    }
}

// Services take turns: whoever has something is not passed over for longer than a turn takes.
void data_model::judge_turns() {
    for (auto& [id, stream] : streams) {
        const tcp_socket& socket = *stream.socket;
        const bool could = !socket.arrived.empty() && !socket.listed && !socket.read_failed;
        const bool same_turn = could && streams.size() == turn_streams;
        stream.passed_over = same_turn ? stream.passed_over + (others_read ? 1 : 0) : 0;
        if (stream.passed_over > std::ssize(streams)) {
            broken("stream %u is passed over while others are read", id);
        }
    }
    turn_streams = streams.size();
}

// ---- Waits ----

// Nothing is ready. If there is work that no event will tell of, a wait is a fault.
void data_model::waits(int timeout_ms) {
    waited = timeout_ms > 0;
    const bool busy = !queue.empty() || !streams.empty();
    if (timeout_ms > (busy ? WAIT_BUSY_MS : WAIT_IDLE_MS)) {
        broken("a wait of %d ms, with %zu frames and %zu streams", timeout_ms, queue.size(),
               streams.size());
    }
    if (timeout_ms > 0 && !excused) {
        work_of_server_waits(timeout_ms);
        work_of_output_waits(timeout_ms);
        work_of_services_waits(timeout_ms);
    }
}

void data_model::wait_failed(int error) {
    waited = true;
    excused = true;
    if (error != EINTR) {
        close_reason = "the poller has failed";
    }
}

void data_model::work_of_server_waits(int timeout_ms) const {
    if (uploads_full()) {
        return;
    }
    if (!remote->arrived.empty() && !remote->listed && !remote->read_failed) {
        broken("a wait of %d ms, while %zu bytes of the server have arrived", timeout_ms,
               remote->arrived.size());
    }
    if (reading != input::DISCARD && want > 0 && unread.size() >= want) {
        broken("a wait of %d ms, while a frame has been received and not read", timeout_ms);
    }
}

void data_model::work_of_output_waits(int timeout_ms) const {
    if (queue.empty() || remote->wants_room || remote->dead) {
        return;
    }
    const bool policy_holds = remote->sent.size() >= QUARTER;
    if (!policy_holds || timeout_ms > WAIT_HELD_MS) {
        broken("a wait of %d ms, while %zu frames could leave", timeout_ms, queue.size());
    }
}

bool data_model::turns_have_room() const {
    return frames() < FRAMES_READY || conn->output.in_turn < FRAMES_IN_TURN;
}

void data_model::work_of_services_waits(int timeout_ms) const {
    for (const auto& [id, stream] : streams) {
        const tcp_socket& socket = *stream.socket;
        if (socket.listed) {
            continue;
        }
        const bool may_read = memory() < MEMORY_LIMIT && turns_have_room();
        if (may_read && !socket.arrived.empty() && !socket.read_failed) {
            broken("a wait of %d ms, while stream %u has %zu bytes to read", timeout_ms, id,
                   socket.arrived.size());
        }
        if (!stream.waiting.empty() && !socket.wants_room) {
            broken("a wait of %d ms, while stream %u could be given its bytes", timeout_ms, id);
        }
    }
}

bool data_model::is_quiet() const {
    return queue.empty() && remote->arrived.empty() && remote->sent.empty() && unread.empty() &&
           std::all_of(streams.begin(), streams.end(), [](const auto& one) {
               const tcp_socket& socket = *one.second.socket;
               return one.second.waiting.empty() && socket.arrived.empty() && socket.sent.empty();
           });
}

void data_model::must_be_finished() const {
    if (!is_quiet()) {
        broken("everybody reads, and yet %zu frames and %llu bytes for services do not leave",
               queue.size(), static_cast<unsigned long long>(waiting_bytes()));
    }
}
