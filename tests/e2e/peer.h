// peer.h - the server's side in the test process: address manager, control and data connections,
// played step by step.
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

#include "box.h"
#include "support/frames.h"
#include "support/service.h"

// True when the daemon answers an echo and nothing else comes before the answer.
inline bool echoes(const unique_fd& data, uint32_t stream) {
    write_all(data.get(), debug_request(stream));
    return frame_read(data.get()) == debug_answer(stream);
}

// All five data connections to one port; short enough for command 7. The device looks for a key and
// takes the next quoted text, so one text serves five keys.
inline std::string order_frame(const loopback_listener& server) {
    return frame_bytes(DATA_ORDER, 0,
                       R"(host1host2host3host4host5 "127.0.0.1" port1port2port3port4port5 ")" +
                           std::to_string(server.port) + '"');
}

// The first data connection that comes, logged in.
inline unique_fd data_login(const loopback_listener& server) {
    unique_fd fd = server.accept();
    const int at_once = 1;  // what is written apart arrives apart
    setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &at_once, sizeof at_once);
    frame_read(fd.get());
    write_all(fd.get(), frame_bytes(LOGIN_ANSWER));
    return fd;
}

// A server and its daemon, which must end first, as it restarts when its connections do.
struct session {
    loopback_listener manager, control_server, data_server;
    unique_fd control, data;
    box device;

    explicit session(const char* verbose = "7", const char* host = "localhost",
                     const std::vector<std::string>& settings = {})
        : device(manager.port, verbose, host, settings) {}

    // Answers one discovery with the control port. Hands back the request.
    std::string discover() const {
        const unique_fd fd = manager.accept();
        std::string request = read_until(fd.get(), "\r\n\r\n");
        write_all(fd.get(), "HTTP/1.1 200 OK\r\n\r\n{\"ret\":0,\"proxy\":\"127.0.0.1:" +
                                std::to_string(control_server.port) + "\"}");
        return request;
    }
    bool hears(const std::string& bytes) const {
        return read_exact(control.get(), bytes.size()) == bytes;
    }
    bool sends(const std::string& bytes) const { return write_all(control.get(), bytes); }
    // Discovery, then the login up to the session id request.
    bool log_in_only() {
        discover();
        control = control_server.accept();
        frame_read(control.get());
        return sends(frame_bytes(LOGIN_ANSWER)) && hears(frame_bytes(SESSION_ID));
    }
    // The same, and the first heartbeat.
    bool log_in() {
        return log_in_only() && hears(heartbeat_frame(0)) && sends(heartbeat_frame(0));
    }
    bool order() { return log_in() && sends(order_frame(data_server)); }
    // The same, and a data login.
    bool relay() { return order() && (data = data_login(data_server)); }
    bool sends_data(const std::string& bytes) const { return write_all(data.get(), bytes); }
};
