#include "connection/gwa_stream_give_up.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>

#include <cstdlib>

#include "main/gwa_log.h"

namespace {

constexpr uint32_t GONE_MAX = 1000;  // ids of a connection that a server has yet to close

}  // namespace

void gwa_stream_give_up(gwa_stream* stream) {
    gwa_data_streams& streams = stream->connection->streams;
    gwa_stream_strip(stream);
    streams.gone.push_back(*stream);
    if (++streams.gone_count > GONE_MAX) {
        gwa_stream_forget(stream->connection, streams.gone.first()->id);
    }
}

bool gwa_stream_is_gone(gwa_connection_data* conn, uint32_t id) {
    return gwa_stream_find_by_id(&conn->streams.gone, id) != nullptr;
}

void gwa_stream_forget(gwa_connection_data* conn, uint32_t id) {
    gwa_stream* const stream = gwa_stream_find_by_id(&conn->streams.gone, id);
    if (stream != nullptr) {
        conn->streams.gone_count--;
        list_unlink(*stream);
        free(stream);
    }
}

void gwa_stream_forget_all(gwa_connection_data* conn) {
    while (gwa_stream* const stream = conn->streams.gone.first()) {
        gwa_stream_forget(conn, stream->id);
    }
}

// What waits for the service, here and in the kernel. It falls as soon as the service takes a byte.
static uint32_t left_for_service(const gwa_stream& stream) {
    int queued = 0;
    ioctl(stream.socket, SIOCOUTQ, &queued);
    return stream.waiting + static_cast<uint32_t>(queued);
}

void gwa_stream_look_at_waiting(gwa_connection_data* conn) {
    for (gwa_stream& stream : conn->streams.all) {
        stream.left = left_for_service(stream);
    }
}

static void give_up_stuck(gwa_stream* stream) {
    GWA_LOG(ERROR, "local service takes too little, stream id %u", stream->id);
    gwa_stream_give_up(stream);
}

void gwa_stream_give_up_stuck(gwa_connection_data* conn, bool one_at_least) {
    gwa_stream* fullest = nullptr;  // of those whose services take something
    bool any_stuck = false;
    for (gwa_stream& stream : conn->streams.all) {
        if (stream.waiting == 0) {
            continue;
        }
        if (left_for_service(stream) >= stream.left) {
            give_up_stuck(&stream);
            any_stuck = true;
        } else if (fullest == nullptr || stream.waiting > fullest->waiting) {
            fullest = &stream;
        }
    }
    if (one_at_least && !any_stuck && fullest != nullptr) {
        give_up_stuck(fullest);
    }
    gwa_stream_look_at_waiting(conn);
}
