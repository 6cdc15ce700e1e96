#include "connection/gwa_connection_data_input.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "connection/gwa_connection_heartbeat.h"
#include "runtime/gwa_util_time.h"

namespace {

constexpr int HEADER_LIMIT_S = 10;
constexpr int PAYLOAD_LIMIT_S = 120;
constexpr int DISCARD_LIMIT_S = 120;

}  // namespace

void gwa_input_step_begin(gwa_data_input* input, gwa_input_step step, uint32_t want) {
    input->step = step;
    input->discarded = 0;
    input->want = want;
    input->begun = gwa_data_input::NOT_WAITED;
}

void gwa_input_reset(gwa_data_input* input) {
    input->more = gwa_more::DRAINED;
    input->held_looks = 0;
    input->ahead.begin = input->ahead.end = 0;
    gwa_input_next_frame(input);
}

void gwa_input_next_frame(gwa_data_input* input) {
    gwa_input_step_begin(input, gwa_input_step::HEADER, GWA_HEADER_SIZE);
}

bool gwa_input_frame_has_begun(const gwa_data_input* input) {
    return input->step != gwa_input_step::HEADER || input->ahead.end > input->ahead.begin;
}

// How long a step may take.
static int step_limit_s(gwa_input_step step) {
    switch (step) {
        case gwa_input_step::HEADER: return HEADER_LIMIT_S;
        case gwa_input_step::HEARTBEAT: return GWA_HEARTBEAT_LIMIT_S;
        case gwa_input_step::PAYLOAD: return PAYLOAD_LIMIT_S;
        case gwa_input_step::DISCARD:
        case gwa_input_step::EXTRA_DISCARD: break;
    }
    return DISCARD_LIMIT_S;
}

bool gwa_input_step_is_late(gwa_data_input* input) {
    const int64_t now = gwa_time.steady_us() / GWA_US_PER_SECOND;
    if (input->begun == gwa_data_input::NOT_WAITED) {
        input->begun = now;
    }
    return now >= input->begun + step_limit_s(input->step);
}

void gwa_input_step_stand_still(gwa_data_input* input) {
    input->begun = gwa_data_input::NOT_WAITED;
}

static uint32_t arrived(const gwa_read_ahead& ahead) { return ahead.end - ahead.begin; }

static bool step_discards(gwa_input_step step) {
    return step == gwa_input_step::DISCARD || step == gwa_input_step::EXTRA_DISCARD;
}

// Whether the current step has all of its bytes. A discard gets rid of them as they come.
static bool step_is_complete(gwa_data_input* input) {
    gwa_read_ahead& ahead = input->ahead;
    if (!step_discards(input->step)) {
        return arrived(ahead) >= input->want;
    }
    const uint32_t count = std::min(arrived(ahead), input->want - input->discarded);
    ahead.begin += count;
    input->discarded += count;
    return input->discarded == input->want;
}

// Moves what is there to the front, so that as much as possible can come behind it.
static void make_room(gwa_read_ahead* ahead) {
    const uint32_t count = arrived(*ahead);
    memmove(ahead->bytes, ahead->bytes + ahead->begin, count);
    ahead->begin = 0;
    ahead->end = count;
}

gwa_input_fill gwa_input_step_fill(gwa_data_input* input, int fd) {
    gwa_read_ahead& ahead = input->ahead;
    while (!step_is_complete(input)) {
        make_room(&ahead);
        const ssize_t got = recv(fd, ahead.bytes + ahead.end, gwa_read_ahead::SIZE - ahead.end, 0);
        if (got == 0) {
            return gwa_input_fill::CLOSED;
        }
        if (got == -1) {
            return errno == EAGAIN ? gwa_input_fill::BLOCKED : gwa_input_fill::FAILED;
        }
        ahead.end += static_cast<uint32_t>(got);
    }
    return gwa_input_fill::DONE;
}

uint8_t* gwa_input_step_take(gwa_data_input* input) {
    uint8_t* const bytes = input->ahead.bytes + input->ahead.begin;
    input->ahead.begin += input->want;
    return bytes;
}

bool gwa_input_continues(const gwa_data_input* input) {
    const gwa_read_ahead& ahead = input->ahead;
    if (arrived(ahead) < GWA_HEADER_SIZE) {
        return false;
    }
    gwa_header next;
    gwa_protocol_load(ahead.bytes + ahead.begin, &next);
    const uint32_t length = ntohl(next.length);
    return ntohs(next.command) == static_cast<uint16_t>(gwa_command::DATA) &&
           ntohl(next.stream_id) == input->header.stream_id && length > 0 &&
           length <= arrived(ahead) - GWA_HEADER_SIZE;
}
