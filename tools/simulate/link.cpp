#include "link.h"

#include <algorithm>

#include "network.h"

namespace {

constexpr int64_t WAY_US = 300'000;  // there and back
constexpr int64_t FIRST_TRY_US = 200'000;
constexpr int64_t PAUSE_MAX_US = 120'000'000;
constexpr int TRIES_MAX = 15;
constexpr int PROBES_LOST = 2;
constexpr int64_t KEEP_IDLE_US = 30'000'000;  // as the login sets them
constexpr int64_t KEEP_LOST_US = 24'000'000;
constexpr int64_t US_PER_MS = 1000;

// Bytes or a probe that are sent again and again, after pauses that double.
struct tries {
    int lost = 0;
    int64_t answered_us;  // the last that has found an answer, or their begin
    int64_t second_lost_us = 0;
};

tries tries_since(int64_t begin_us, bool silent, int64_t silent_us) {
    tries made{.answered_us = begin_us};
    int64_t pause = FIRST_TRY_US;
    for (int64_t at = begin_us + pause; at <= the_time.now_us; at += pause) {
        if (silent && at > silent_us) {
            made.second_lost_us = ++made.lost == PROBES_LOST ? at : made.second_lost_us;
        } else {
            made.answered_us = at;
        }
        pause = std::min(pause * 2, PAUSE_MAX_US);
    }
    return made;
}

}  // namespace

tcp_link::tcp_link() : answered_us(the_time.now_us), heard_us(the_time.now_us) {}

// What the time has brought.
void tcp_link::settle() {
    const int64_t back_us = sent_us + WAY_US;
    if (sent_us >= 0 && back_us <= (silent ? silent_us : the_time.now_us)) {
        answered_us = back_us;
        sent_us = -1;
    }
}

void tcp_link::change(bool to_silent, bool queued) {
    settle();
    if (silent && !to_silent && (queued || sent_us >= 0)) {
        bytes_taken(queued);
    } else if (!silent && to_silent) {
        silent_us = the_time.now_us;
    }
    silent = to_silent;
}

void tcp_link::bytes_sent(bool queued_before) {
    settle();
    if (sent_us < 0 && !queued_before) {
        sent_us = the_time.now_us;
    }
}

void tcp_link::bytes_taken(bool queued) {
    answered_us = the_time.now_us;
    sent_us = queued ? the_time.now_us : -1;
}

void tcp_link::bytes_came() { heard_us = the_time.now_us; }

int64_t tcp_link::unanswered_us(bool queued) {
    settle();
    if (sent_us >= 0) {
        return the_time.now_us - sent_us;
    }
    const tries probes = tries_since(answered_us, silent, silent_us);
    return queued && probes.lost >= PROBES_LOST ? the_time.now_us - probes.second_lost_us : 0;
}

bool tcp_link::is_given_up(bool queued) {
    settle();
    if (!silent) {
        return false;
    }
    if (sent_us >= 0 || queued) {
        const int64_t begin_us = sent_us >= 0 ? sent_us : answered_us;
        return tries_since(begin_us, silent, silent_us).lost >= TRIES_MAX;
    }
    const int64_t idle_us = std::max(answered_us, heard_us);
    const int64_t probes = std::max<int64_t>(silent_us - idle_us, 0) / KEEP_IDLE_US + 1;
    return the_time.now_us >= idle_us + probes * KEEP_IDLE_US + KEEP_LOST_US;
}

tcp_info tcp_link::info(bool queued) {
    settle();
    const bool shut = queued && sent_us < 0;
    const tries probes = tries_since(answered_us, silent, silent_us);
    const int64_t answer_us = shut ? probes.answered_us : answered_us;
    tcp_info told{};
    told.tcpi_unacked = sent_us >= 0 ? 1 : 0;
    told.tcpi_probes = static_cast<uint8_t>(shut ? probes.lost : 0);
    told.tcpi_last_ack_recv = static_cast<uint32_t>((the_time.now_us - answer_us) / US_PER_MS);
    told.tcpi_last_data_recv = static_cast<uint32_t>((the_time.now_us - heard_us) / US_PER_MS);
    return told;
}
