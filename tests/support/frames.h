// frames.h - the frames between the daemon and its server, as bytes: made here by hand, so that the
// daemon's own code for them is checked rather than trusted.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "eventually.h"

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

std::string be32(uint32_t value);
std::string frame_bytes(command code, uint32_t stream = 0, std::string_view payload = {},
                        uint8_t version = 1);
std::string heartbeat_frame(uint32_t sequence);

// A user's request to a port of the box whose id is "box", and the frame that opens a stream by it.
std::string request_text(int port, const std::string& more = "");
std::string request_frame(uint32_t stream, int port, const std::string& more = "");
// A request that the daemon itself answers, which needs no service; the answer.
std::string debug_request(uint32_t stream, const std::string& operation = "echo");
std::string debug_answer(uint32_t stream, const std::string& status = "200 OK",
                         const std::string& body = "echo");

// The next frame; what came of it when it was not whole before the deadline.
std::string frame_read(int fd, test_duration patience = TEST_PATIENCE);
uint32_t frame_stream(std::string_view frame);
std::string frame_payload(std::string_view frame);
