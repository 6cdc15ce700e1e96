// link.h - the way from a socket to its peer, which may go silent: nothing arrives, and nobody
// acknowledges. What TCP makes of that by itself: it sends again, probes a shut window and an idle
// connection, and gives up in the end.
#pragma once

#include <netinet/tcp.h>

#include <cstdint>

class tcp_link {
   public:
    tcp_link();
    bool is_silent() const { return silent; }

    // What happens. `queued`: bytes are in the send buffer; what of them is acknowledged waits for
    // a window that opens when the peer takes some.
    void change(bool to_silent, bool queued);
    void bytes_sent(bool queued_before);
    void bytes_taken(bool queued);
    void bytes_came();

    // For how long an answer has been missing, to bytes or to the second of two probes.
    int64_t unanswered_us(bool queued);
    // Whether the kernel has lost its patience.
    bool is_given_up(bool queued);
    tcp_info info(bool queued);

   private:
    bool silent = false;
    int64_t silent_us = 0;  // since when
    int64_t sent_us = -1;   // of the first bytes that are not acknowledged; -1: there are none
    int64_t answered_us;    // the last acknowledgement
    int64_t heard_us;       // the last bytes

    void settle();
};
