// peer.h - the server's side in the test process: address manager, control and data connections,
// played step by step.
#pragma once

#include <array>
#include <map>

#include "box.h"
#include "support/frames.h"
#include "support/sockets.h"

constexpr int DATA_CONNECTIONS = 5;

// What arrives for each stream, until the stream `last` has got that many bytes.
std::map<uint32_t, std::string> streams_read(int fd, uint32_t last, size_t size);

// A user's request as it opens a stream to a port of the box, and the frame with it.
std::string request_text(uint16_t port, std::string_view more = {});
std::string request_frame(uint32_t stream, uint16_t port, std::string_view more = {});
// The same for one of the daemon's own operations.
std::string debug_frame(uint32_t stream, std::string_view operation);
// The daemon's answer to such a request.
std::string debug_answer(std::string_view status, std::string_view body);
// True when the daemon answers an echo and nothing else comes before the answer.
bool echoes(int data_fd, uint32_t stream);

struct peer {
    loopback_listener manager, control;
    std::array<loopback_listener, DATA_CONNECTIONS> data;

    // The five pairs; short enough for command 7.
    std::string order() const;

    // Answers one discovery with the control port. Hands back the request.
    std::string discover() const;
    // Discovery, then the login up to the session id request.
    unique_fd login() const;
    // Data connection 0 as it logs in; the other four get no answer.
    unique_fd data_login() const;
};

// Answers the heartbeat that must come next.
bool heartbeat_answer(int control_fd, uint32_t sequence);

// A server and its daemon, which must end first, as it restarts when its connections do.
struct session {
    peer server;
    unique_fd control, data;
    box device;

    explicit session(const char* verbose = "7") : device(server.manager.port, verbose) {}
    // The login and the first heartbeat.
    bool log_in();
    // The same, the order and the data login.
    bool relay();
};
