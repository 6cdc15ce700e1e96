#include "frames.h"

#include "sockets.h"

namespace {

constexpr size_t STREAM_AT = 8, LENGTH_AT = 12;

uint32_t number_at(std::string_view frame, size_t at) {
    uint32_t value = 0;
    for (const char byte : frame.substr(at, 4)) {
        value = value << 8 | static_cast<uint8_t>(byte);
    }
    return value;
}

}  // namespace

std::string be32(uint32_t value) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8) {
        bytes += static_cast<char>(value >> shift);
    }
    return bytes;
}

std::string frame_bytes(command code, uint32_t stream, std::string_view payload, uint8_t version) {
    std::string bytes{static_cast<char>(version), HEADER_SIZE, 0, static_cast<char>(code)};
    bytes += be32(code == DATA ? 0 : 1) + be32(stream);
    return (bytes += be32(static_cast<uint32_t>(payload.size()))).append(payload);
}

std::string heartbeat_frame(uint32_t sequence) {
    return frame_bytes(HEARTBEAT, 0, be32(sequence), 2);
}

std::string request_text(int port, const std::string& more) {
    return "GET /?x-qv-devid=box&x-qv-port=" + std::to_string(port) + more + " HTTP/1.1\r\n\r\n";
}

std::string request_frame(uint32_t stream, int port, const std::string& more) {
    return frame_bytes(DATA, stream, request_text(port, more));
}

std::string debug_request(uint32_t stream, const std::string& operation) {
    return request_frame(stream, 10010, "&x-qv-gwad-opt=" + operation);
}

std::string debug_answer(uint32_t stream, const std::string& status, const std::string& body) {
    return frame_bytes(DATA, stream,
                       "HTTP/1.1 " + status + "\r\nContent-Type:text/plain\r\nContent-Length:" +
                           std::to_string(body.size()) + "\r\n\r\n" + body);
}

std::string frame_read(int fd, test_duration patience) {
    const std::string head = read_exact(fd, HEADER_SIZE, patience);
    return head.size() < HEADER_SIZE ? head
                                     : head + read_exact(fd, number_at(head, LENGTH_AT), patience);
}

uint32_t frame_stream(std::string_view frame) { return number_at(frame, STREAM_AT); }

std::string frame_payload(std::string_view frame) {
    return std::string(frame.substr(std::min(HEADER_SIZE, frame.size())));
}
