// frames.h - the frames between the daemon and its server, as bytes: made here by hand, so that the
// daemon's own code for them is checked rather than trusted.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "sockets.h"

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

inline std::string be32(uint32_t value) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8) {
        bytes += static_cast<char>(value >> shift);
    }
    return bytes;
}

inline std::string frame_bytes(command code, uint32_t stream = 0, std::string_view payload = {},
                               uint8_t version = 1) {
    std::string bytes{static_cast<char>(version), HEADER_SIZE, 0, static_cast<char>(code)};
    bytes += be32(code == DATA ? 0 : 1) + be32(stream);
    return (bytes += be32(static_cast<uint32_t>(payload.size()))).append(payload);
}

inline std::string heartbeat_frame(uint32_t sequence) {
    return frame_bytes(HEARTBEAT, 0, be32(sequence), 2);
}

// A user's request to a port of the box whose id is "box", and the frame that opens a stream by it.
inline std::string request_text(int port, const std::string& more = "") {
    return "GET /?x-qv-devid=box&x-qv-port=" + std::to_string(port) + more + " HTTP/1.1\r\n\r\n";
}

inline std::string request_frame(uint32_t stream, int port, const std::string& more = "") {
    return frame_bytes(DATA, stream, request_text(port, more));
}

// A request that the daemon itself answers, which needs no service; the answer.
inline std::string debug_request(uint32_t stream, const std::string& operation = "echo") {
    return request_frame(stream, 10010, "&x-qv-gwad-opt=" + operation);
}

inline std::string debug_answer(uint32_t stream, const std::string& status = "200 OK",
                                const std::string& body = "echo") {
    return frame_bytes(DATA, stream,
                       "HTTP/1.1 " + status + "\r\nContent-Type:text/plain\r\nContent-Length:" +
                           std::to_string(body.size()) + "\r\n\r\n" + body);
}

inline uint32_t frame_number(std::string_view frame, size_t at) {
    uint32_t value = 0;
    for (const char byte : frame.substr(at, 4)) {
        value = value << 8 | static_cast<uint8_t>(byte);
    }
    return value;
}

inline uint32_t frame_stream(std::string_view frame) { return frame_number(frame, 8); }

inline std::string frame_payload(std::string_view frame) {
    return std::string(frame.substr(std::min(HEADER_SIZE, frame.size())));
}

// The next frame; what came of it when it was not whole before the deadline.
inline std::string frame_read(int fd, test_duration patience = TEST_PATIENCE) {
    const std::string head = read_exact(fd, HEADER_SIZE, patience);
    return head.size() < HEADER_SIZE ? head
                                     : head + read_exact(fd, frame_number(head, 12), patience);
}
