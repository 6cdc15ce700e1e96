#include "peer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>

namespace {

constexpr std::string_view PLAIN_ANSWER{"\1\x10\0\5\0\0\0\1\0\0\0\0\0\0\0\0", HEADER_SIZE};

uint32_t number(std::string_view bytes) {
    uint32_t value = 0;
    for (const char byte : bytes) {
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

std::optional<frame> frame_read(int fd, test_duration patience) {
    const std::string head = read_exact(fd, HEADER_SIZE, patience);
    if (head.size() < HEADER_SIZE) {
        return std::nullopt;
    }
    const std::string_view view = head;
    const uint32_t length = number(view.substr(12));
    frame read{static_cast<uint8_t>(head[0]),
               static_cast<uint8_t>(head[1]),
               static_cast<uint16_t>(number(view.substr(2, 2))),
               number(view.substr(4, 4)),
               number(view.substr(8, 4)),
               read_exact(fd, length, patience)};
    return read.payload.size() == length ? std::optional(std::move(read)) : std::nullopt;
}

std::map<uint32_t, std::string> streams_read(int fd, uint32_t last, size_t size) {
    std::map<uint32_t, std::string> streams;
    while (streams[last].size() < size) {
        const std::optional<frame> next = frame_read(fd);
        if (!next || next->command != DATA) {
            break;
        }
        streams[next->stream] += next->payload;
    }
    return streams;
}

std::string request_text(uint16_t port, std::string_view more) {
    return "GET /?x-qv-devid=test-box&x-qv-port=" + std::to_string(port) + std::string(more) +
           " HTTP/1.1\r\n\r\n";
}

std::string request_frame(uint32_t stream, uint16_t port, std::string_view more) {
    return frame_bytes(DATA, stream, request_text(port, more));
}

std::string debug_frame(uint32_t stream, std::string_view operation) {
    constexpr uint16_t DEBUG_PORT = 10010;
    return request_frame(stream, DEBUG_PORT, "&x-qv-gwad-opt=" + std::string(operation));
}

std::string debug_answer(std::string_view status, std::string_view body) {
    return "HTTP/1.1 " + std::string(status) +
           "\r\nContent-Type:text/plain\r\nContent-Length:" + std::to_string(body.size()) +
           "\r\n\r\n" + std::string(body);
}

bool echoes(int data_fd, uint32_t stream) {
    write_all(data_fd, debug_frame(stream, "echo"));
    const std::optional<frame> answer = frame_read(data_fd);
    return answer && answer->stream == stream && answer->payload == debug_answer("200 OK", "echo");
}

std::string peer::order() const {
    // The device looks for a key and takes the next quoted text, so one text serves five keys.
    std::string text = R"(host1host2host3host4host5 "127.0.0.1")";
    for (int id = 0; id < DATA_CONNECTIONS; ++id) {
        text += "port" + std::to_string(id + 1) + " \"" + std::to_string(data[id].port) + '"';
    }
    return text;
}

std::string peer::discover(std::string_view body) const {
    const unique_fd fd = manager.accept();
    std::string request = read_until(fd.get(), "\r\n\r\n");
    const std::string proxy =
        R"({"ret":0,"proxy":"127.0.0.1:)" + std::to_string(control.port) + "\"}";
    write_all(fd.get(), "HTTP/1.1 200 OK\r\n\r\n" + (body.empty() ? proxy : std::string(body)));
    return request;
}

unique_fd peer::login(std::string_view answer) const {
    discover();
    unique_fd fd = control.accept();
    frame_read(fd.get());
    write_all(fd.get(), answer.empty() ? PLAIN_ANSWER : answer);
    read_exact(fd.get(), HEADER_SIZE);
    return fd;
}

unique_fd peer::data_login() const {
    unique_fd fd = data[0].accept();
    const int at_once = 1;  // what is written apart arrives apart
    setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &at_once, sizeof at_once);
    frame_read(fd.get());
    write_all(fd.get(), PLAIN_ANSWER);
    return fd;
}

peer::session peer::relay() const {
    session both;
    both.control = login();
    heartbeat_answer(both.control.get(), 0);
    write_all(both.control.get(), frame_bytes(DATA_ORDER, 0, order()));
    both.data = data_login();
    return both;
}

bool heartbeat_answer(int control_fd, uint32_t sequence) {
    const std::string beat = frame_bytes(HEARTBEAT, 0, be32(sequence), 2);
    return read_exact(control_fd, beat.size()) == beat && write_all(control_fd, beat);
}
