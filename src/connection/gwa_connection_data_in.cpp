#include "connection/gwa_connection_data_in.h"

#include <errno.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "connection/gwa_connection_data_close.h"
#include "connection/gwa_connection_data_out.h"
#include "connection/gwa_connection_request.h"
#include "connection/gwa_stream.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_util_memory.h"
#include "runtime/gwa_util_text.h"
#include "runtime/gwa_util_time.h"

namespace {

constexpr int FRAMES_PER_PASS = 64;  // half a megabyte at most, then sending has its turn
constexpr int HEADER_LIMIT_S = 10;
constexpr int HEARTBEAT_LIMIT_S = 10;
constexpr int PAYLOAD_LIMIT_S = 120;
constexpr int DISCARD_LIMIT_S = 120;
constexpr size_t SCRATCH_SIZE = 2048;

enum class fill {
    DONE,     // the step has all of its bytes
    BLOCKED,  // the rest is not there yet
    CLOSED,   // end of file
    FAILED,   // errno
};

}  // namespace

// Where the next bytes of the current step go; a discard gets rid of them.
static uint8_t* step_target(gwa_input& input, uint8_t (&scratch)[SCRATCH_SIZE]) {
    switch (input.step) {
        case gwa_input_step::HEADER:
        case gwa_input_step::HEARTBEAT: return input.bytes + input.have;
        case gwa_input_step::PAYLOAD: return input.payload + input.have;
        case gwa_input_step::DISCARD: return scratch;
    }
    return scratch;
}

// Receives for the current step until it is complete or the socket has no more.
static fill step_fill(gwa_connection_data* conn) {
    gwa_input& input = conn->input;
    uint8_t scratch[SCRATCH_SIZE];
    while (input.have < input.want) {
        size_t room = input.want - input.have;
        if (input.step == gwa_input_step::DISCARD) {
            room = std::min(room, sizeof scratch);
        }
        const ssize_t got = recv(conn->socket, step_target(input, scratch), room, 0);
        if (got == 0) {
            return fill::CLOSED;
        }
        if (got == -1) {
            return errno == EAGAIN ? fill::BLOCKED : fill::FAILED;
        }
        if (input.step == gwa_input_step::HEADER && input.have == 0) {
            input.begun = gwa_time_seconds();
        }
        input.have += static_cast<uint32_t>(got);
    }
    return fill::DONE;
}

bool gwa_connection_data_discards_extra(const gwa_connection_data* conn) {
    return conn->input.step == gwa_input_step::DISCARD && !conn->input.failure_closes;
}

// The extra discard has ended, whole or not. Exception 47: a heartbeat that was under way before it
// began may have had its answer thrown away; it counts as answered, or there would never be another
// one and the stall check would end the process under all users. An answer that comes late still
// fits.
static void extra_discard_ended(gwa_connection_data* conn) {
    conn->heartbeat_resp = conn->heartbeat_seq;
    gwa_connection_input_next(conn);
}

// A frame that has begun cannot be completed: what that means depends on where it stopped.
static void step_failed(gwa_connection_data* conn) {
    switch (conn->input.step) {
        case gwa_input_step::HEADER: GWA_LOG(ERROR, "recv failed fd %d", conn->socket); break;
        case gwa_input_step::HEARTBEAT:
        case gwa_input_step::PAYLOAD: GWA_LOG(ERROR, "recv data failed fd %d", conn->socket); break;
        case gwa_input_step::DISCARD:
            if (gwa_connection_data_discards_extra(conn)) {
                extra_discard_ended(conn);
                return;
            }
            break;
    }
    gwa_connection_data_close(conn);
}

static bool frame_has_begun(const gwa_input& input) {
    return input.step != gwa_input_step::HEADER || input.have > 0;
}

// How long the current step may take.
static int step_limit_s(gwa_input_step step) {
    switch (step) {
        case gwa_input_step::HEADER: return HEADER_LIMIT_S;
        case gwa_input_step::HEARTBEAT: return HEARTBEAT_LIMIT_S;
        case gwa_input_step::PAYLOAD: return PAYLOAD_LIMIT_S;
        case gwa_input_step::DISCARD: break;
    }
    return DISCARD_LIMIT_S;
}

// Whether the current step has used up its time. A clock that was set back starts it over.
static bool step_is_late(gwa_input& input) {
    const int64_t now = gwa_time_seconds();
    input.begun = std::min(input.begun, now);
    return now >= input.begun + step_limit_s(input.step);
}

// The socket has nothing more for now.
static void input_blocked(gwa_connection_data* conn) {
    if (!frame_has_begun(conn->input)) {
        conn->in_state = gwa_in_state::DRAINED;
        return;
    }
    // The state stays MORE, so that every round looks at the time; the rest itself wakes the
    // poller, since the worker has lowered the socket's low-water mark.
    if (step_is_late(conn->input)) {
        GWA_LOG(ERROR, "recv timeout...");
        step_failed(conn);
    }
}

static void input_closed(gwa_connection_data* conn) {
    if (!frame_has_begun(conn->input)) {
        // Oddity 20: an orderly close by the server looks like a drained socket; heartbeats or a
        // failing send find out.
        GWA_LOG(DEBUG, "no more data");
        conn->in_state = gwa_in_state::DRAINED;
        return;
    }
    GWA_LOG(FATAL, "!!! remote server close the connection fd %d !!!", conn->socket);
    step_failed(conn);
}

static void input_failed(gwa_connection_data* conn) {
    const bool begun = frame_has_begun(conn->input);
    if (begun && errno == ECONNREFUSED) {
        GWA_LOG(ERROR, "recv failed, connection refused fd %d %s", conn->socket, strerror(errno));
    } else {
        GWA_LOG(ERROR, "recv failed fd %d %s", conn->socket, strerror(errno));
    }
    if (begun) {
        step_failed(conn);
    } else {
        gwa_connection_data_close(conn);
    }
}

static void expect_payload(gwa_connection_data* conn, uint32_t length) {
    gwa_input& input = conn->input;
    input.payload = static_cast<uint8_t*>(GWA_MALLOC(length));
    gwa_connection_memory_charge(conn, length);
    input.step = gwa_input_step::PAYLOAD;
    input.have = 0;
    input.want = length;
    input.begun = gwa_time_seconds();
}

static void expect_heartbeat(gwa_connection_data* conn, uint32_t length) {
    gwa_input& input = conn->input;
    GWA_LOG(DEBUG, "recv heartbeat response on conn %d", conn->id);
    if (length != GWA_HEARTBEAT_PAYLOAD) {
        GWA_LOG(ERROR, "heartbeat response is invalid");
        gwa_connection_input_discard(conn, length, true);  // exception 41
        return;
    }
    input.step = gwa_input_step::HEARTBEAT;
    input.have = 0;
    input.want = GWA_HEARTBEAT_PAYLOAD;
    input.begun = gwa_time_seconds();
}

static void close_stream(gwa_connection_data* conn, uint32_t stream_id) {
    GWA_LOG(REFUSAL, "close the stream id %u", stream_id);
    gwa_connection_data_output_free_by_id(conn, stream_id);
    gwa_stream_local_destroy_by_id(&conn->streams, stream_id);
}

// A whole header is there: counts and checks it and says what comes next.
static void header_done(gwa_connection_data* conn) {
    gwa_input& input = conn->input;
    gwa_counter_add(conn->traffic.bytes_in, GWA_HEADER_SIZE);
    gwa_counter_add(conn->traffic.packets_in, 1);
    conn->last_in_time = gwa_now_get();
    input.bytes[GWA_HEADER_SIZE] = '\0';  // the dump may print what follows as text
    gwa_protocol_show(input.bytes);
    gwa_protocol_load(input.bytes, &input.header);
    if (gwa_protocol_check(&input.header) != GWA_OK) {
        GWA_LOG(ERROR, "protcol check failed, conn %d", conn->id);
        gwa_hexdump(input.bytes, GWA_HEADER_SIZE);
        gwa_connection_data_close(conn);
    }
    gwa_connection_input_next(conn);
    const uint32_t length = input.header.length;
    switch (static_cast<gwa_command>(input.header.command)) {
        case gwa_command::CLOSE_STREAM: close_stream(conn, input.header.stream_id); break;
        case gwa_command::CLOSE_CONNECTION:
            GWA_LOG(FATAL, "close the TCP connection %d", conn->id);
            gwa_connection_data_close(conn);
        case gwa_command::RESPONSE_DEVICE_INFO:
            gwa_connection_input_discard(conn, length, true);
            break;
        case gwa_command::HEARTBEAT: expect_heartbeat(conn, length); break;
        default:  // stream data, whatever the command says
            if (length > 0) {
                expect_payload(conn, length);
            }
            break;
    }
}

static void heartbeat_done(gwa_connection_data* conn) {
    const uint32_t sequence = load_be32(conn->input.bytes);
    gwa_counter_add(conn->traffic.bytes_in, GWA_HEARTBEAT_PAYLOAD);
    if (sequence + 1 != conn->heartbeat_seq) {
        GWA_LOG(FATAL, "heartbeat response not match, seq = %u, must %u", sequence,
                conn->heartbeat_seq - 1);
        gwa_connection_data_close(conn);
    }
    conn->heartbeat_resp = sequence + 1;
    gwa_connection_input_next(conn);
}

static void payload_done(gwa_connection_data* conn) {
    gwa_input& input = conn->input;
    uint8_t* const payload = input.payload;
    input.payload = nullptr;  // the dispatch owns it
    gwa_counter_add(conn->traffic.bytes_in, input.header.length);
    // Before the dispatch, which may order a discard instead.
    gwa_connection_input_next(conn);
    gwa_connection_remote_data_parse(conn, &input.header, payload, input.header.length);
}

static void discard_done(gwa_connection_data* conn) {
    if (gwa_connection_data_discards_extra(conn)) {
        extra_discard_ended(conn);
        return;
    }
    gwa_counter_add(conn->traffic.bytes_in, conn->input.want);  // a payload of the protocol
    gwa_connection_input_next(conn);
}

static void step_done(gwa_connection_data* conn) {
    switch (conn->input.step) {
        case gwa_input_step::HEADER: header_done(conn); break;
        case gwa_input_step::HEARTBEAT: heartbeat_done(conn); break;
        case gwa_input_step::PAYLOAD: payload_done(conn); break;
        case gwa_input_step::DISCARD: discard_done(conn); break;
    }
}

void gwa_connection_data_remote_in_handle(gwa_connection_data* conn) {
    conn->in_state = gwa_in_state::MORE;
    conn->input_has_more = false;
    for (int headers = 0; headers < FRAMES_PER_PASS;) {
        if (conn->input.step == gwa_input_step::HEADER) {
            headers++;
        }
        switch (step_fill(conn)) {
            case fill::DONE: step_done(conn); break;
            case fill::BLOCKED: input_blocked(conn); return;
            case fill::CLOSED: input_closed(conn); return;
            case fill::FAILED: input_failed(conn); return;
        }
    }
    conn->input_has_more = true;
}
