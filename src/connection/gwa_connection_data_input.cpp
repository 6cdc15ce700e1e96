#include "connection/gwa_connection_data_input.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "runtime/gwa_util_time.h"

namespace {

constexpr int HEADER_LIMIT_S = 10;
constexpr int HEARTBEAT_LIMIT_S = 10;
constexpr int PAYLOAD_LIMIT_S = 120;
constexpr int DISCARD_LIMIT_S = 120;
constexpr size_t SCRATCH_SIZE = 2048;

}  // namespace

void gwa_input_step_begin(gwa_data_input* input, gwa_input_step step, uint32_t want) {
    input->step = step;
    input->have = 0;
    input->want = want;
    input->begun = gwa_time_seconds();
}

void gwa_input_next_frame(gwa_data_input* input) {
    gwa_input_step_begin(input, gwa_input_step::HEADER, GWA_HEADER_SIZE);
}

bool gwa_input_frame_has_begun(const gwa_data_input* input) {
    return input->step != gwa_input_step::HEADER || input->have > 0;
}

// How long a step may take.
static int step_limit_s(gwa_input_step step) {
    switch (step) {
        case gwa_input_step::HEADER: return HEADER_LIMIT_S;
        case gwa_input_step::HEARTBEAT: return HEARTBEAT_LIMIT_S;
        case gwa_input_step::PAYLOAD: return PAYLOAD_LIMIT_S;
        case gwa_input_step::DISCARD:
        case gwa_input_step::EXTRA_DISCARD: break;
    }
    return DISCARD_LIMIT_S;
}

bool gwa_input_step_is_late(gwa_data_input* input) {
    const int64_t now = gwa_time_seconds();
    input->begun = std::min(input->begun, now);
    return now >= input->begun + step_limit_s(input->step);
}

// Where the next bytes of the current step go; a discard gets rid of them.
static uint8_t* step_target(gwa_data_input* input, uint8_t (&scratch)[SCRATCH_SIZE]) {
    switch (input->step) {
        case gwa_input_step::HEADER:
        case gwa_input_step::HEARTBEAT: return input->bytes + input->have;
        case gwa_input_step::PAYLOAD: return input->payload + input->have;
        case gwa_input_step::DISCARD:
        case gwa_input_step::EXTRA_DISCARD: break;
    }
    return scratch;
}

static bool step_discards(gwa_input_step step) {
    return step == gwa_input_step::DISCARD || step == gwa_input_step::EXTRA_DISCARD;
}

gwa_input_fill gwa_input_step_fill(gwa_data_input* input, int fd) {
    uint8_t scratch[SCRATCH_SIZE];
    while (input->have < input->want) {
        const size_t missing = input->want - input->have;
        const size_t room =
            step_discards(input->step) ? std::min(missing, sizeof scratch) : missing;
        const ssize_t got = recv(fd, step_target(input, scratch), room, 0);
        if (got == 0) {
            return gwa_input_fill::CLOSED;
        }
        if (got == -1) {
            return errno == EAGAIN ? gwa_input_fill::BLOCKED : gwa_input_fill::FAILED;
        }
        if (!gwa_input_frame_has_begun(input)) {
            input->begun = gwa_time_seconds();  // of a header: with its first byte
        }
        input->have += static_cast<uint32_t>(got);
    }
    return gwa_input_fill::DONE;
}
