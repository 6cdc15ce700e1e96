#include "connection/gwa_connection_data_round.h"

#include "connection/gwa_connection_data_addr.h"
#include "connection/gwa_connection_data_in.h"
#include "connection/gwa_connection_data_out.h"
#include "connection/gwa_stream_give_up.h"
#include "connection/gwa_stream_in.h"
#include "main/gwa_log.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_util_time.h"

namespace {

constexpr int FIRST_WAIT_MS = 100;
constexpr int WAIT_BUSY_MS = 100;
constexpr int WAIT_IDLE_MS = 1000;
constexpr int PAUSE_US = 100;
constexpr int32_t CHECK_INTERVAL_S = 600;
constexpr int32_t STREAM_IDLE_S = 300;

}  // namespace

int gwa_connection_data_init2(gwa_connection_data* conn) {
    conn->closed = false;
    conn->socket = -1;
    conn->streams.more = gwa_more::DRAINED;
    conn->output.held_passes = 0;
    conn->heartbeat_resp = conn->heartbeat.seq;
    conn->peer = {};
    if (poll_init(&conn->poller) != GWA_OK) {
        GWA_LOG(RESULT, "init epoll failed");
        return GWA_FAILED;
    }
    conn->poller.timeout = FIRST_WAIT_MS;
    return GWA_OK;
}

static void forget_input(gwa_connection_data* conn) {
    if (conn->input.step == gwa_input_step::PAYLOAD) {
        gwa_connection_memory_release(conn, conn->input.header.length);
    }
    gwa_input_reset(&conn->input);
}

void gwa_connection_data_free(gwa_connection_data* conn) {
    GWA_LOG(DEBUG, "connection data id %d free ...", conn->id);
    gwa_stream_free_all(&conn->streams.all);
    gwa_stream_forget_all(conn);
    forget_input(conn);
    gwa_connection_queue_sweep(
        &conn->output.queue, [](const gwa_output_node&) { return true; },
        [conn](gwa_output_node* node) { gwa_connection_data_node_release(conn, node); });
    poll_exit(&conn->poller);  // closes the socket, which is registered there, and forgets it
    conn->output.state = gwa_out_state::IDLE;
    GWA_LOG(DEBUG, "connection data id %d free success", conn->id);
}

static void gwa_connection_data_close(gwa_connection_data* conn) {
    GWA_LOG(FATAL, "close connection data %d start ...", conn->id);
    gwa_connection_data_free(conn);
    GWA_LOG(FATAL, "start jump to restart ...");
    conn->closed = true;
}

void gwa_connection_data_remote_handle(uint32_t events, void* argument) {
    gwa_connection_data* const conn = static_cast<gwa_connection_data*>(argument);
    if (conn == nullptr) {
        GWA_LOG(ERROR, "arg is null");
        return;
    }
    gwa_step step = gwa_step::GOES_ON;
    if ((events & EPOLLIN) != 0) {
        step = gwa_connection_data_remote_in_handle(conn);
    }
    if (step == gwa_step::GOES_ON && (events & EPOLLOUT) != 0) {
        step = gwa_connection_data_remote_out_handle(conn);
    }
    if (step == gwa_step::CLOSED) {
        // The poller sees that its set is gone, and tells the round.
        gwa_connection_data_close(conn);
    }
}

static bool has_output(gwa_connection_data* conn) {
    return gwa_connection_queue_is_empty(&conn->output.queue) == 0;
}

static bool has_memory(const gwa_connection_data* conn) {
    return gwa_connection_memory(conn) < GWA_MEMORY_LIMIT;
}

// How long this round may wait for events, in ms. 0: there is work that no event will tell of.
static int wait_ms(gwa_connection_data* conn) {
    const bool reads =
        conn->streams.more == gwa_more::HAS_MORE && gwa_connection_data_room(conn) > 0;
    if (reads || conn->input.more == gwa_more::HAS_MORE) {
        return 0;
    }
    if (conn->output.held_passes > 0) {
        return gwa_connection_data_hold_ms(conn);
    }
    const bool sends = has_output(conn);
    if (sends && !gwa_connection_data_is_blocked(conn)) {
        return 0;
    }
    return sends || !conn->streams.all.empty() ? WAIT_BUSY_MS : WAIT_IDLE_MS;
}

// Waits for events and runs their callbacks.
static int events_wait(gwa_connection_data* conn, int limit_ms) {
    conn->poller.timeout = limit_ms;
    return limit_ms == 0 ? poll_now(&conn->poller) : poll_wait(&conn->poller);
}

// Another number after anything has come or gone.
static uint32_t progress(const gwa_connection_data* conn) {
    return static_cast<uint32_t>(gwa_counter_get(conn->traffic.bytes_in) +
                                 gwa_counter_get(conn->traffic.bytes_out)) +
           gwa_connection_memory(conn);
}

// The poller has failed, or one of its callbacks has closed the connection and its set with it.
static gwa_step poller_failed(gwa_connection_data* conn) {
    if (conn->closed) {
        return gwa_step::CLOSED;
    }
    GWA_LOG(FATAL, "epoll error conn %d", conn->id);
    return gwa_connection_running() ? gwa_step::CLOSED : gwa_step::GOES_ON;
}

// Streams that stopped reading read again, as far as there is memory.
static void streams_wakeup(gwa_connection_data* conn) {
    conn->streams.more = has_memory(conn) ? gwa_stream_local_in_wakeup(
                                                &conn->streams.all, gwa_connection_data_room(conn))
                                          : gwa_more::DRAINED;
}

// Sends what waits. When all of it could leave, as much again does, of what the streams read
// meanwhile: so half as much needs to wait from round to round.
static gwa_step output_again(gwa_connection_data* conn) {
    const bool sends = has_output(conn) || conn->output.held_passes > 0;
    if (sends && gwa_connection_data_remote_out_handle(conn) == gwa_step::CLOSED) {
        return gwa_step::CLOSED;
    }
    const bool sends_again = conn->output.may_send && !gwa_connection_data_is_blocked(conn);
    streams_wakeup(conn);
    if (!sends_again || conn->streams.more != gwa_more::HAS_MORE) {
        return gwa_step::GOES_ON;
    }
    if (gwa_connection_data_queue_send(conn) == gwa_step::CLOSED) {
        return gwa_step::CLOSED;
    }
    streams_wakeup(conn);
    return gwa_step::GOES_ON;
}

// The round's own input pass. Streams that have waited for memory do not wait any longer when the
// server closes one that held it.
static gwa_step input_again(gwa_connection_data* conn) {
    const bool was_short = !has_memory(conn);
    if (gwa_connection_data_remote_in_handle(conn) == gwa_step::CLOSED) {
        return gwa_step::CLOSED;
    }
    if (was_short && has_memory(conn)) {
        streams_wakeup(conn);
    }
    return gwa_step::GOES_ON;
}

// Heartbeat, or else keepalive.
static void probe(gwa_connection_data* conn) {
    if (conn->input.step == gwa_input_step::EXTRA_DISCARD) {
        return;  // exception 47: the answer would be thrown away with the rest
    }
    switch (gwa_connection_silence(&conn->heartbeat)) {
        case gwa_silence::NONE: break;
        case gwa_silence::OUT: gwa_connection_data_heartbeat_handle(conn); break;
        case gwa_silence::IN: gwa_connection_data_keepalive_handle(conn); break;
    }
}

static void drop_stale(gwa_connection_data* conn) {
    if (gwa_seconds_since(conn->last_check_time) > CHECK_INTERVAL_S) {
        gwa_connection_data_buffer_timeout_check(conn);
        gwa_connection_data_stream_idle_check(conn);
        conn->last_check_time = gwa_now_get();
    }
}

static gwa_step relay(gwa_connection_data* conn) {
    const uint32_t before = progress(conn);
    const int limit_ms = wait_ms(conn);
    conn->output.may_send = false;
    if (events_wait(conn, limit_ms) == GWA_FAILED) {
        return poller_failed(conn);
    }
    if (output_again(conn) == gwa_step::CLOSED) {
        return gwa_step::CLOSED;
    }
    const bool read_again = conn->input.more != gwa_more::DRAINED;
    if (read_again && input_again(conn) == gwa_step::CLOSED) {
        return gwa_step::CLOSED;
    }
    if (gwa_peer_is_gone(&conn->peer, conn->socket)) {  // exception 69
        GWA_LOG(ERROR, "remote server is gone, conn %d", conn->id);
        return gwa_step::CLOSED;
    }
    probe(conn);
    drop_stale(conn);
    const bool idle = limit_ms == 0 && progress(conn) == before;
    if (idle || conn->output.held_passes == 1) {
        gwa_usleep(PAUSE_US);  // a server nearby takes what it has got meanwhile
    }
    return gwa_step::GOES_ON;
}

gwa_step gwa_connection_data_round(gwa_connection_data* conn) {
    // A newer order closes it too: to log in anew, to the new address.
    const gwa_step step = gwa_connection_data_order_waits(conn) ? gwa_step::CLOSED : relay(conn);
    if (step == gwa_step::CLOSED && !conn->closed) {
        gwa_connection_data_close(conn);
    }
    return step;
}

void gwa_connection_data_stream_idle_check(gwa_connection_data* conn) {
    GWA_LOG(CREATE, "check idle stream now, conn id %d", conn->id);
    for (gwa_stream& stream : conn->streams.all) {
        if (gwa_seconds_since(stream.last_activity) > STREAM_IDLE_S) {
            GWA_LOG(ERROR, "stream idle too long time, stream id %d", static_cast<int>(stream.id));
            gwa_stream_give_up(&stream);
        }
    }
}
