// gwa_login_handshake.h - the handshakes of control and data connections: connect, report the
// device information, wait for the answer.
//
// Owner:   the returned socket is the caller's; on failure nothing stays open.
// Threads: gwa_login_control on the main thread, gwa_login_data on any worker, several at a time.
// Results: a connected, logged-in, non-blocking socket, or -1 after the reason has been logged.
#pragma once

#include <cstdint>

#include "runtime/gwa_types.h"

// What the control login needs from the control connection, handed in so that this floor need not
// know the one above.
struct gwa_login_sink {
    gwa_traffic* traffic;              // counts the frames of the handshake
    void (*answer)(const char* text);  // gets the answer's payload, terminated; it may take seconds
};

// Logs in on the control connection and asks for a session id. `address` in host order. An answer
// of 1008 bytes or more ends the process: it means a broken server.
int gwa_login_control(uint32_t address, uint16_t port, const gwa_login_sink& sink);
// Logs in on a data connection. `address` in host order and never 0.
int gwa_login_data(uint32_t address, uint16_t port);
// Sends the session id request; the answer arrives on the control connection. 0 or -1.
int gwa_sessionid_alloc(int fd, gwa_traffic* traffic);
