// data_model_in.cpp - what the server's bytes mean, and which services and streams that concerns.
#include <algorithm>
#include <cerrno>
#include <utility>

#include "data_model.h"
#include "runtime/gwa_util_time.h"
#include "server.h"

namespace {

constexpr uint32_t UPLOADS_MAX = 2 << 20;
constexpr int32_t LOOK_INTERVAL_S = 30;
constexpr int LOOKS = 4;
constexpr int32_t STREAM_IDLE_S = 300;
constexpr int32_t CHECK_INTERVAL_S = 600;

// The value of a parameter of a request, or the text that stands for none.
std::string parameter(const std::string& request, const std::string& name) {
    const size_t at = request.find(name + "=");
    if (at == std::string::npos) {
        return "";
    }
    const size_t begin = at + name.size() + 1;
    return request.substr(begin, request.find_first_of("& ", begin) - begin);
}

}  // namespace

void data_model::begin(input what, uint32_t bytes) {
    reading = what;
    want = bytes;
    begun_s = -1;
}

// Brings the account up to where the daemon is: its counter tells how many bytes it has read.
void data_model::catch_up() {
    const uint64_t target = gwa_counter_get(conn->traffic.bytes_in);
    while (step_done(target)) {
        moved = progressed = true;
    }
    if (counted != target) {
        broken("the daemon counts %llu bytes of input, which must be %llu",
               static_cast<unsigned long long>(target), static_cast<unsigned long long>(counted));
    }
}

// True: the daemon has completed a step of its input.
bool data_model::step_done(uint64_t target) {
    if (reading == input::EXTRA_DISCARD) {
        if (conn->input.step == gwa_input_step::EXTRA_DISCARD && target == counted) {
            return false;
        }
        extra_discard_ended();
        return true;
    }
    const bool empty_discard = want == 0 && target == counted;
    if (target - counted < want || (empty_discard && conn->input.step == gwa_input_step::DISCARD)) {
        return false;
    }
    if (unread.size() < want) {
        broken("the daemon has read more than it has received");
    }
    const std::string bytes(unread.view().substr(0, want));
    unread.pop(want);
    counted += want;
    switch (reading) {
        case input::HEADER: header_done(bytes); break;
        case input::HEARTBEAT:
            if (wire::number_at(bytes, 0) + 1 != heartbeat_seq) {
                close_reason = "a heartbeat answer with a wrong number";
            }
            heartbeat_resp = wire::number_at(bytes, 0) + 1;
            begin(input::HEADER, wire::HEADER);
            break;
        case input::PAYLOAD:
            begin(input::HEADER, wire::HEADER);
            data_came(bytes);
            break;
        case input::DISCARD:
        case input::EXTRA_DISCARD: begin(input::HEADER, wire::HEADER); break;
    }
    return true;
}

void data_model::header_done(std::string_view header) {
    const auto version = static_cast<uint8_t>(header[0]);
    const uint32_t code = wire::number_at(header, 0) & 0xffff;
    const uint32_t length = wire::number_at(header, 12);
    last_in = gwa_now_get();
    begin(input::HEADER, wire::HEADER);
    if (version < 1 || version > 3 || header[1] != wire::HEADER || code < wire::DATA ||
        code > wire::PORT_INFO || length > wire::PAYLOAD_MAX) {
        close_reason = "a header that is none";
        return;
    }
    stream_id = wire::number_at(header, 8);
    switch (code) {
        case wire::CLOSE_STREAM: stream_closed(stream_id); return;
        case wire::CLOSE_CONNECTION: close_reason = "the server has said so"; return;
        case wire::LOGIN_ANSWER: begin(input::DISCARD, length); return;
        case wire::HEARTBEAT:
            begin(length == 4 ? input::HEARTBEAT : input::DISCARD, length);
            return;
        default: break;
    }
    if (length > 0) {
        begin(input::PAYLOAD, length);
    }
}

// As many bytes as the request had are gone, or all that have come when time or connection ends.
void data_model::extra_discard_ended() {
    if (unread.size() < want && !std::exchange(ended_early, false)) {
        broken("a discard of %u bytes ends after %zu", want, unread.size());
    }
    unread.pop(std::min<size_t>(unread.size(), want));
    heartbeat_resp = heartbeat_seq;
    begin(input::HEADER, wire::HEADER);
}

void data_model::stream_closed(uint32_t id) {
    std::erase_if(queue, [id](const model_frame& frame) {
        return frame.stream_id == id && frame.kind != model_frame::kind::HEARTBEAT &&
               frame.sent == 0;
    });
    gone.erase(id);
    const auto found = streams.find(id);
    if (found != streams.end()) {
        to_close.push_back(found->second.socket);
        streams.erase(found);
    }
}

void data_model::data_came(const std::string& payload) {
    const auto found = streams.find(stream_id);
    if (found != streams.end()) {
        found->second.last_activity = gwa_now_get();
        found->second.waiting.push_back({payload});
    } else if (!gone.contains(stream_id)) {
        request_came(payload);
    }
}

void data_model::request_came(const std::string& payload) {
    constexpr size_t HEAD_MIN = 18;
    if (payload.size() < HEAD_MIN || !payload.starts_with("GET /") ||
        parameter(payload, "x-qv-devid") != "box") {
        return;
    }
    const std::string port = parameter(payload, "x-qv-port");
    const std::string priority_text = parameter(payload, "x-qv-pri");
    const auto priority = static_cast<uint32_t>(priority_text.empty() ? 4 : stol(priority_text));
    if (port == "10010" && memory_with_request(payload.size()) > CEILING) {
        return;  // no answer is added to what nobody reads
    }
    if (port == "10010") {
        const std::string operation = parameter(payload, "x-qv-gwad-opt");
        if (operation == "echo") {
            answer(stream_id, priority, "200 OK", "echo");
        } else if (operation == "log" && parameter(payload, "loglv").empty()) {
            answer(stream_id, priority, "404 File Not Found", "not contain loglv field");
        } else if (operation == "log") {
            answer(stream_id, priority, "200 OK", "OK");
        } else {
            answer(stream_id, priority, "404 File Not Found",
                   operation.empty() ? "not contain x-qv-gwad-opt field" : "File Not Found");
        }
    } else if (!port.empty() && port != "65535") {
        opening = {true, nullptr, stream_id, priority, payload, gwa_now_get()};
    }
}

// ---- Local sockets ----

void data_model::opened(tcp_socket* socket) {
    if (!opening.wanted || opening.socket != nullptr) {
        broken("a socket is made that no request asks for");
    }
    opening.socket = socket;
    opening.wanted = socket != nullptr;  // else there is no stream, and nothing is thrown away
}

void data_model::connected(tcp_socket& socket, bool success) {
    if (&socket != opening.socket) {
        broken("a socket is connected twice");
    }
    if (!success) {
        return;  // its close tells the same
    }
    static uint64_t number = 0;
    model_stream& made = streams[opening.id];
    made.id = opening.id;
    made.number = ++number;
    made.priority = opening.priority;
    made.socket = &socket;
    made.waiting.push_back({opening.payload});
    made.last_activity = opening.since;
    opening = {};
}

void data_model::registered(tcp_socket& socket, bool success) {
    if (model_stream* const stream = stream_of(socket)) {
        stream->refused_by_poller = !success;
    }
}

void data_model::closing(tcp_socket& socket) {
    if (uploads_full()) {
        begun_s = -1;  // the time of a frame that is held stands still
    }
    if (&socket == opening.socket) {
        begin(input::EXTRA_DISCARD, static_cast<uint32_t>(opening.payload.size()));
        opening = {};
    } else if (std::erase(to_close, &socket) == 0 && &socket != remote) {
        model_stream* const stream = stream_of(socket);
        stream->was_stuck = is_stuck(*stream);
        closed.push_back(*stream);
        gone.insert(stream->id);
        streams.erase(stream->id);
    }
    moved = true;
}

// Streams that the daemon has ended by itself: there must be a reason, and it must know them.
void data_model::judge_closed_streams() {
    const bool checks = gwa_seconds_since(last_check) > CHECK_INTERVAL_S;
    bool any_stuck = false;
    for (const model_stream& stream : closed) {
        any_stuck = any_stuck || stream.was_stuck;
    }
    for (const model_stream& stream : std::exchange(closed, {})) {
        const bool idle = checks && gwa_seconds_since(stream.last_activity) > STREAM_IDLE_S;
        const bool fullest = looks_in_this_round() && !any_stuck && hold.looks % LOOKS == 0;
        if (!idle && !stream.was_stuck && !fullest && !stream.refused_by_poller) {
            broken("stream %u is closed without a reason", stream.id);
        }
        hold.gave_up = hold.gave_up || stream.was_stuck || fullest;
    }
}

// ---- Uploads that are full (exception 59) ----

bool data_model::looks_in_this_round() const {
    return hold.on && gwa_seconds_since(hold.last) >= LOOK_INTERVAL_S;
}

// Whether the service has taken nothing since the last look.
bool data_model::is_stuck(const model_stream& stream) const {
    return looks_in_this_round() && !stream.waiting.empty() &&
           (hold.spoilt || hold.fails || stream.bytes_left() >= stream.left);
}

// Who takes nothing loses his stream at the next look; when all take something, one does at each
// fourth.
void data_model::judge_hold(bool full) {
    const bool looks = looks_in_this_round();
    if (looks && full && !progressed && !hold.spoilt && !hold.fails) {
        for (const auto& [id, stream] : streams) {
            if (is_stuck(stream)) {
                broken("stream %u keeps others waiting, and its service takes nothing", id);
            }
        }
        if (hold.looks % LOOKS == 0 && !hold.gave_up) {
            broken("uploads are full for two minutes, and nobody makes room");
        }
    }
    const bool should_begin = full && (!hold.on || progressed);
    const bool begins = should_begin && hold.seen;
    if (begins) {
        hold.looks = 0;
    }
    // A pass that has used up its frames looks in the next round.
    hold.unseen = should_begin && !begins ? hold.unseen + 1 : 0;
    if (hold.unseen > 1) {
        broken("uploads are full, and nobody looks who takes nothing");
    }
    hold.gave_up = false;
    hold.on = full && (begins || !should_begin);
    if (begins || looks) {
        hold.looks++;
        hold.last = gwa_now_get();
        hold.spoilt = hold.fails;
        for (auto& [id, stream] : streams) {
            stream.left = stream.bytes_left();
        }
    }
    hold.seen = hold.fails = false;
}

// ---- The server's socket ----

void data_model::remote_received(std::string_view bytes, int error) {
    if (uploads_full()) {
        broken("the daemon goes on to receive, although services take nothing of %llu bytes",
               static_cast<unsigned long long>(waiting_bytes()));
    }
    unread.push(bytes);
    if (!bytes.empty()) {
        moved = true;
        return;
    }
    const bool frame_has_begun = reading != input::HEADER || !unread.empty();
    if (error == EAGAIN) {
        if (frame_has_begun) {
            input_is_late();
        }
    } else if (reading == input::EXTRA_DISCARD) {
        ended_early = true;
    } else if (error != 0 || frame_has_begun) {
        close_reason = error != 0 ? "receiving has failed" : "the end within a frame";
    }
}

// The rest of a frame is not there. How long it may take by the clock that nobody sets.
void data_model::input_is_late() {
    const bool short_step = reading == input::HEADER || reading == input::HEARTBEAT;
    const int64_t now_s = the_time.now_us / GWA_US_PER_SECOND;
    begun_s = begun_s == -1 ? now_s : begun_s;
    if (now_s - begun_s < (short_step ? 10 : 120)) {
        return;
    }
    if (reading == input::EXTRA_DISCARD) {
        ended_early = true;
    } else {
        close_reason = "the rest of a frame does not come";
    }
}

uint64_t data_model::waiting_bytes() const {
    uint64_t bytes = 0;
    for (const auto& [id, stream] : streams) {
        bytes += stream.bytes_waiting();
    }
    return bytes;
}

bool data_model::uploads_full() const {
    const uint64_t waiting = waiting_bytes();
    return reading == input::PAYLOAD &&
           (waiting > UPLOADS_MAX || (waiting > 0 && memory() > CEILING));
}

model_stream* data_model::stream_of(const tcp_socket& socket) {
    for (auto& [id, stream] : streams) {
        if (stream.socket == &socket) {
            return &stream;
        }
    }
    return nullptr;
}

const model_stream* data_model::stream(uint32_t id) const {
    const auto found = streams.find(id);
    return found == streams.end() ? nullptr : &found->second;
}
