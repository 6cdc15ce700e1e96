// link_model.h - what must hold when a server acknowledges nothing: the daemon ends the connection,
// and never that of a server who does acknowledge, whether he reads or not.
#pragma once

#include "network.h"

class link_model {
   public:
    // The daemon comes by, and has to have noticed what it could.
    void comes_by(tcp_socket& server);
    // It does something else, or cannot look: what it has seen before counts no more.
    void is_busy() { since_us = came_us = the_time.now_us; }
    // Whether it may end the connection.
    static bool is_gone(tcp_socket& server);

   private:
    int64_t came_us = the_time.now_us;
    int64_t since_us = the_time.now_us;  // it has come by all the time
};
