#include "connection/gwa_connection_data_in.h"

#include <cerrno>
#include <cstring>

#include "connection/gwa_connection_data_out.h"
#include "connection/gwa_connection_request.h"
#include "connection/gwa_stream_give_up.h"
#include "main/gwa_log.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_util_text.h"
#include "runtime/gwa_util_time.h"

namespace {

constexpr int FRAMES_PER_PASS = 64;         // half a megabyte at most, then sending has its turn
constexpr uint32_t UPLOADS_MAX = 0x200000;  // bytes that may wait for services
constexpr int32_t LOOK_INTERVAL_S = 30;     // then a service must have taken some of it
constexpr int32_t LOOKS_MAX = 4;            // and enough of it, for the server to go on

}  // namespace

// The extra discard has ended, whole or not. Exception 47: a heartbeat that was under way before it
// began may have had its answer thrown away; it counts as answered, or there would never be another
// one and the stall check would end the process under all users. An answer that comes late still
// fits.
static gwa_step extra_discard_ended(gwa_connection_data* conn) {
    conn->heartbeat_resp = conn->heartbeat.seq;
    gwa_input_next_frame(&conn->input);
    return gwa_step::GOES_ON;
}

// ---- What ends a pass ----

// A frame that has begun cannot be completed: what that means depends on where it stopped.
static gwa_step step_failed(gwa_connection_data* conn) {
    switch (conn->input.step) {
        case gwa_input_step::HEADER: GWA_LOG(ERROR, "recv failed fd %d", conn->socket); break;
        case gwa_input_step::HEARTBEAT:
        case gwa_input_step::PAYLOAD: GWA_LOG(ERROR, "recv data failed fd %d", conn->socket); break;
        case gwa_input_step::DISCARD: break;
        case gwa_input_step::EXTRA_DISCARD: return extra_discard_ended(conn);
    }
    return gwa_step::CLOSED;
}

// Exception 59: services take less than users send. What they have not taken yet is bounded, so
// the payload stays in the socket, and TCP tells the server; the frame's time stands still.
static bool uploads_are_full(const gwa_connection_data* conn) {
    return conn->input.step == gwa_input_step::PAYLOAD &&
           (conn->streams.waiting > UPLOADS_MAX ||
            (conn->streams.waiting > 0 && gwa_connection_memory(conn) > GWA_MEMORY_CEILING));
}

static gwa_step input_held(gwa_connection_data* conn) {
    gwa_data_input& input = conn->input;
    const int32_t now = gwa_now_get();
    if (input.held_looks == 0) {
        gwa_stream_look_at_waiting(conn);
        input.held_looks = 1;
        input.last_look = now;
    } else if (gwa_seconds_since(input.last_look) >= LOOK_INTERVAL_S) {
        gwa_stream_give_up_stuck(conn, input.held_looks++ % LOOKS_MAX == 0);
        input.last_look = now;
    }
    gwa_input_step_stand_still(&input);
    input.more = uploads_are_full(conn) ? gwa_more::WAITS : gwa_more::HAS_MORE;
    return gwa_step::GOES_ON;
}

// The socket has nothing more for now.
static gwa_step input_blocked(gwa_connection_data* conn) {
    if (!gwa_input_frame_has_begun(&conn->input)) {
        conn->input.more = gwa_more::DRAINED;
        return gwa_step::GOES_ON;
    }
    conn->input.more = gwa_more::WAITS;  // so that every round looks at the time
    if (!gwa_input_step_is_late(&conn->input)) {
        return gwa_step::GOES_ON;
    }
    GWA_LOG(ERROR, "recv timeout...");
    return step_failed(conn);
}

static gwa_step input_closed(gwa_connection_data* conn) {
    if (!gwa_input_frame_has_begun(&conn->input)) {
        conn->input.more = gwa_more::DRAINED;
        // Oddity 20: an orderly close by the server looks like a drained socket; heartbeats or a
        // failing send find out.
        GWA_LOG(DEBUG, "no more data");
        return gwa_step::GOES_ON;
    }
    conn->input.more = gwa_more::WAITS;  // should it go on, the next round meets the end again
    GWA_LOG(FATAL, "!!! remote server close the connection fd %d !!!", conn->socket);
    return step_failed(conn);
}

static gwa_step input_failed(gwa_connection_data* conn) {
    const bool begun = gwa_input_frame_has_begun(&conn->input);
    if (begun && errno == ECONNREFUSED) {
        GWA_LOG(ERROR, "recv failed, connection refused fd %d %s", conn->socket, strerror(errno));
    } else {
        GWA_LOG(ERROR, "recv failed fd %d %s", conn->socket, strerror(errno));
    }
    conn->input.more = gwa_more::WAITS;  // should it go on, the next round meets the end
    return begun ? step_failed(conn) : gwa_step::CLOSED;
}

// ---- What a frame means ----

static gwa_step close_stream(gwa_connection_data* conn, uint32_t stream_id) {
    GWA_LOG(REFUSAL, "close the stream id %u", stream_id);
    gwa_connection_data_output_free_by_id(conn, stream_id);
    gwa_stream_local_destroy_by_id(&conn->streams.all, stream_id);
    gwa_stream_forget(conn, stream_id);
    return gwa_step::GOES_ON;
}

static gwa_step expect_heartbeat(gwa_connection_data* conn, uint32_t length) {
    GWA_LOG(DEBUG, "recv heartbeat response on conn %d", conn->id);
    if (length != GWA_HEARTBEAT_PAYLOAD) {
        GWA_LOG(ERROR, "heartbeat response is invalid");
        gwa_input_step_begin(&conn->input, gwa_input_step::DISCARD, length);  // exception 41
    } else {
        gwa_input_step_begin(&conn->input, gwa_input_step::HEARTBEAT, length);
    }
    return gwa_step::GOES_ON;
}

static gwa_step expect_payload(gwa_connection_data* conn, uint32_t length) {
    if (length > 0) {
        gwa_connection_memory_charge(conn, length);
        gwa_input_step_begin(&conn->input, gwa_input_step::PAYLOAD, length);
    }
    return gwa_step::GOES_ON;
}

// A whole header is there: counts and checks it and says what comes next.
static gwa_step header_done(gwa_connection_data* conn) {
    gwa_data_input& input = conn->input;
    uint8_t shown[GWA_HEADER_SIZE + 1] = {};  // terminated: a text may be looked for behind it
    memcpy(shown, gwa_input_step_take(&input), GWA_HEADER_SIZE);
    gwa_counter_add(conn->traffic.bytes_in, GWA_HEADER_SIZE);
    gwa_counter_add(conn->traffic.packets_in, 1);
    conn->heartbeat.last_in_time = gwa_now_get();
    gwa_protocol_show(shown);
    gwa_protocol_load(shown, &input.header);
    if (gwa_protocol_check(&input.header) != GWA_OK) {
        GWA_LOG(ERROR, "protcol check failed, conn %d", conn->id);
        gwa_hexdump(shown, GWA_HEADER_SIZE);
        return gwa_step::CLOSED;
    }
    gwa_input_next_frame(&input);
    const uint32_t length = input.header.length;
    switch (static_cast<gwa_command>(input.header.command)) {
        case gwa_command::CLOSE_STREAM: return close_stream(conn, input.header.stream_id);
        case gwa_command::CLOSE_CONNECTION:
            GWA_LOG(FATAL, "close the TCP connection %d", conn->id);
            return gwa_step::CLOSED;
        case gwa_command::RESPONSE_DEVICE_INFO:
            gwa_input_step_begin(&input, gwa_input_step::DISCARD, length);
            return gwa_step::GOES_ON;
        case gwa_command::HEARTBEAT: return expect_heartbeat(conn, length);
        default: return expect_payload(conn, length);  // stream data, whatever the command says
    }
}

static gwa_step heartbeat_done(gwa_connection_data* conn) {
    const uint32_t sequence = load_be32(gwa_input_step_take(&conn->input));
    gwa_counter_add(conn->traffic.bytes_in, GWA_HEARTBEAT_PAYLOAD);
    if (sequence + 1 != conn->heartbeat.seq) {
        GWA_LOG(FATAL, "heartbeat response not match, seq = %u, must %u", sequence,
                conn->heartbeat.seq - 1);
        return gwa_step::CLOSED;
    }
    conn->heartbeat_resp = sequence + 1;
    gwa_input_next_frame(&conn->input);
    return gwa_step::GOES_ON;
}

static gwa_step payload_done(gwa_connection_data* conn) {
    gwa_data_input& input = conn->input;
    const uint32_t length = input.header.length;
    const uint8_t* const payload = gwa_input_step_take(&input);
    gwa_counter_add(conn->traffic.bytes_in, length);
    gwa_input_next_frame(&input);  // before the dispatch, which may order a discard instead
    gwa_connection_remote_data_parse(conn, &input.header, payload, length);
    gwa_connection_memory_release(conn, length);
    return gwa_step::GOES_ON;
}

static gwa_step step_done(gwa_connection_data* conn) {
    switch (conn->input.step) {
        case gwa_input_step::HEADER: return header_done(conn);
        case gwa_input_step::HEARTBEAT: return heartbeat_done(conn);
        case gwa_input_step::PAYLOAD: return payload_done(conn);
        case gwa_input_step::DISCARD: break;
        case gwa_input_step::EXTRA_DISCARD: return extra_discard_ended(conn);
    }
    gwa_counter_add(conn->traffic.bytes_in, conn->input.want);
    gwa_input_next_frame(&conn->input);
    return gwa_step::GOES_ON;
}

gwa_step gwa_connection_data_remote_in_handle(gwa_connection_data* conn) {
    for (int headers = 0; headers < FRAMES_PER_PASS && gwa_connection_running();) {
        if (uploads_are_full(conn)) {
            return input_held(conn);
        }
        conn->input.held_looks = 0;
        headers += conn->input.step == gwa_input_step::HEADER ? 1 : 0;
        switch (gwa_input_step_fill(&conn->input, conn->socket)) {
            case gwa_input_fill::BLOCKED: return input_blocked(conn);
            case gwa_input_fill::CLOSED: return input_closed(conn);
            case gwa_input_fill::FAILED: return input_failed(conn);
            case gwa_input_fill::DONE: break;
        }
        if (step_done(conn) == gwa_step::CLOSED) {
            return gwa_step::CLOSED;
        }
    }
    conn->input.more = gwa_more::HAS_MORE;
    return gwa_step::GOES_ON;
}
