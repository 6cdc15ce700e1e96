// peer.h - the server's side in the test process: address manager, control and data connections,
// played step by step.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "support/sockets.h"

enum command : uint16_t {
    DATA = 1,
    HEARTBEAT,
    DEVICE_INFO,
    CLOSE_STREAM,
    LOGIN_ANSWER,
    CLOSE_CONNECTION,
    DATA_ORDER,
    SESSION_ID,
    STATUS,
    REPORT_TIMES,
    PRIVACY,
    PORT_INFO
};

constexpr size_t HEADER_SIZE = 16;
constexpr size_t PAYLOAD_MAX = 8176;
constexpr int DATA_CONNECTIONS = 5;

struct frame {
    uint8_t version = 0, head_size = 0;
    uint16_t command = 0;
    uint32_t flag = 0, stream = 0;
    std::string payload;
};

std::string be32(uint32_t value);
std::string frame_bytes(command code, uint32_t stream = 0, std::string_view payload = {},
                        uint8_t version = 1);
// Nothing when no whole frame came before the deadline.
std::optional<frame> frame_read(int fd, test_duration patience = TEST_PATIENCE);
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

    // Answers one discovery with the control port, or whatever is given. Hands back the request.
    std::string discover(std::string_view body = {}) const;
    // Discovery, then the login up to the session id request. An answer with a payload of its own
    // may hold the order.
    unique_fd login(std::string_view answer = {}) const;
    // Data connection 0 as it logs in; the other four get no answer.
    unique_fd data_login() const;
    // The login, the first heartbeat, the order and the data login.
    struct session {
        unique_fd control, data;
    };
    session relay() const;
};
// Answers the heartbeat that must come next.
bool heartbeat_answer(int control_fd, uint32_t sequence);
