// data_model_out.cpp - what the daemon says to the server, in which order, and when.
#include <algorithm>
#include <cerrno>

#include "data_model.h"
#include "runtime/gwa_util_time.h"
#include "server.h"

namespace {

constexpr size_t FRAMES_PER_CALL = 16;
constexpr uint32_t LIMIT = 4 << 20;

}  // namespace

// Oddity 15: right behind the first frame of greater priority, else at the end; exception 48: never
// ahead of a frame of the same stream. What has left in part stays in front of all.
void data_model::enqueue(model_frame frame) {
    auto place = queue.begin();
    if (place != queue.end() && place->sent > 0) {
        ++place;
    }
    place = std::find_if(place, queue.end(),
                         [&](const model_frame& other) { return other.priority > frame.priority; });
    place = place == queue.end() ? place : place + 1;
    for (auto own = place; own != queue.end(); ++own) {
        if (own->stream_id == frame.stream_id && own->kind != model_frame::kind::HEARTBEAT) {
            place = own + 1;
        }
    }
    frame.queued_at = gwa_now_get();
    queue.insert(place, std::move(frame));
    moved = true;
}

void data_model::answer(uint32_t id, uint32_t priority, const std::string& status,
                        const std::string& body) {
    const std::string text =
        "HTTP/1.1 " + status +
        "\r\nContent-Type:text/plain\r\nContent-Length:" + std::to_string(body.size()) +
        "\r\n\r\n" + body;
    enqueue({model_frame::kind::ANSWER, wire::frame(wire::DATA, id, text), 0, priority, id, 0, 0,
             1024});
}

size_t data_model::frames_in_turn() const {
    return static_cast<size_t>(
        std::count_if(queue.begin(), queue.end(), [](const auto& frame) { return frame.in_turn; }));
}

// Whether only its turn lets a stream read: when much waits before it, and some of that is its own.
bool data_model::needs_turn(const model_stream& stream) const {
    size_t ahead = 0, own = 0;
    for (const model_frame& frame : queue) {
        if (frame.kind != model_frame::kind::HEARTBEAT && frame.priority <= stream.priority) {
            ahead++;
            own += frame.stream_id == stream.id ? 1 : 0;
        }
    }
    return ahead >= FRAMES_READY && own >= FRAMES_AT_ONCE && stream.priority != 0;
}

// A service has said something, or its socket has nothing to say.
void data_model::received(tcp_socket& socket, size_t, std::string_view bytes, int error) {
    if (&socket == remote) {
        remote_received(bytes, error);
        return;
    }
    model_stream* const stream = stream_of(socket);
    const uint32_t limit = stream->priority == 0 ? CEILING : LIMIT;
    if (memory() > limit) {
        broken("stream %u reads although %u bytes are held", stream->id, memory());
    }
    moved = moved || error != EAGAIN;
    stream->passed_over = 0;
    const size_t count = (bytes.size() + wire::PAYLOAD_MAX - 1) / wire::PAYLOAD_MAX;
    const bool in_turn = count > 1 || (count == 1 && needs_turn(*stream));  // an event reads one
    if (in_turn && count > std::max(FRAMES_READY - std::min(frames(), FRAMES_READY),
                                    FRAMES_IN_TURN - std::min(frames_in_turn(), FRAMES_IN_TURN))) {
        broken("stream %u reads %zu frames, and %zu wait, %zu of them of turns", stream->id, count,
               frames(), frames_in_turn());
    }
    others_read = others_read || in_turn || (count > 0 && events_before == the_network.events);
    for (size_t at = 0; at < bytes.size(); at += wire::PAYLOAD_MAX) {
        const std::string_view payload = bytes.substr(at, wire::PAYLOAD_MAX);
        stream->last_activity = gwa_now_get();
        enqueue({model_frame::kind::STREAM, wire::frame(wire::DATA, stream->id, payload), 0,
                 stream->priority, stream->id, stream->number, stream->said,
                 static_cast<uint32_t>(payload.size() + wire::HEADER), in_turn});
        stream->said += payload.size();
    }
}

void data_model::sent(tcp_socket& socket, std::string_view offered, ssize_t taken, int error) {
    if (&socket == remote) {
        remote_sent(offered, taken, error);
        return;
    }
    model_stream* const stream = stream_of(socket);
    if (stream->waiting.empty()) {
        broken("stream %u gives its service bytes that nobody has sent", stream->id);
    }
    model_stream::piece& piece = stream->waiting.front();
    if (offered != std::string_view(piece.bytes).substr(piece.taken)) {
        broken("stream %u gives its service other bytes than those that wait for it", stream->id);
    }
    moved = moved || error != EAGAIN;
    if (taken == -1 && error != EAGAIN) {
        stream->waiting.clear();  // nobody will take it
    } else if (taken > 0) {
        piece.taken += static_cast<size_t>(taken);
        if (piece.taken == piece.bytes.size()) {
            stream->waiting.pop_front();
        }
    }
}

void data_model::looked(tcp_socket& socket, int queued) {
    if (&socket == remote) {
        last_look = queued;
        moved = moved || queued == -1;
        if (queued == -1 && !waiting_begins) {
            may_close("the look at the send buffer has failed");
        }
    } else {
        hold.seen = true;
        hold.fails = hold.fails || queued == -1;
    }
}

void data_model::may_close(const char* reason) { close_reason = reason; }

void data_model::remote_sent(std::string_view offered, ssize_t taken, int error) {
    std::string expected;
    for (size_t i = 0; i < std::min(FRAMES_PER_CALL, queue.size()); i++) {
        expected += std::string_view(queue[i].bytes).substr(queue[i].sent);
    }
    if (last_look < 0 || last_look >= QUARTER) {
        broken("the daemon sends, although the kernel had %d bytes to send", last_look);
    }
    if (offered != expected) {
        const size_t same = static_cast<size_t>(
            std::mismatch(offered.begin(), offered.end(), expected.begin(), expected.end()).first -
            offered.begin());
        broken(
            "the daemon sends other frames than those that must come next: %zu bytes of %zu, "
            "equal up to %zu",
            offered.size(), expected.size(), same);
    }
    if (taken == -1) {
        if (error != EAGAIN) {
            close_reason = "sending has failed";
        }
        return;
    }
    moved = true;
    last_out = gwa_now_get();
    for (auto rest = static_cast<size_t>(taken); rest > 0;) {
        model_frame& frame = queue.front();
        if (frame.sent == 0) {
            frame_left(frame);
        }
        const size_t part = std::min(rest, frame.bytes.size() - frame.sent);
        frame.sent += part;
        rest -= part;
        if (frame.sent == frame.bytes.size()) {
            queue.pop_front();
        }
    }
}

// The order of a stream's bytes, whatever the order of the queue should be.
void data_model::frame_left(const model_frame& frame) {
    if (frame.kind == model_frame::kind::STREAM) {
        uint64_t& next = left[frame.stream_number];
        if (frame.offset < next) {
            broken("bytes of stream %u overtake each other", frame.stream_id);
        }
        next = frame.offset + frame.bytes.size() - wire::HEADER;
    }
}

// ---- Heartbeats and what is too old ----

void data_model::heartbeat_build(bool at_front) {
    model_frame frame{model_frame::kind::HEARTBEAT, wire::heartbeat(heartbeat_seq++)};
    const bool behind_first = at_front && !queue.empty() && queue.front().sent > 0;
    queue.insert(queue.begin() + (behind_first ? 1 : 0), std::move(frame));
    moved = true;
}

// 60 s after the last byte sent, 240 s after the last header; one at a time.
void data_model::probe() {
    if (conn->input.step == gwa_input_step::EXTRA_DISCARD) {
        return;
    }
    const bool queued = std::any_of(queue.begin(), queue.end(), [](const model_frame& frame) {
        return frame.kind == model_frame::kind::HEARTBEAT;
    });
    const bool due = heartbeat_resp == heartbeat_seq && !queued;
    if (gwa_seconds_since(last_out) > 60) {
        if (due && queue.empty()) {
            heartbeat_build(false);
        }
    } else if (gwa_seconds_since(last_in) > 240) {
        if (due) {
            heartbeat_build(true);
        }
        last_in = gwa_moment_before(gwa_now_get(), 180);
    }
}

void data_model::drop_stale() {
    if (gwa_seconds_since(last_check) <= 600) {
        return;
    }
    last_check = gwa_now_get();
    std::erase_if(queue, [](const model_frame& frame) {
        return frame.kind != model_frame::kind::HEARTBEAT && frame.sent == 0 &&
               gwa_seconds_since(frame.queued_at) > 600;
    });
    for (const auto& [id, stream] : streams) {
        if (gwa_seconds_since(stream.last_activity) > 300) {
            broken("stream %u has been idle for too long and is still there", id);
        }
    }
    excused = true;
}
