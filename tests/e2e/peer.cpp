#include "peer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>

std::map<uint32_t, std::string> streams_read(int fd, uint32_t last, size_t size) {
    std::map<uint32_t, std::string> streams;
    while (streams[last].size() < size) {
        const std::string next = frame_read(fd);
        if (next.size() <= HEADER_SIZE) {
            break;
        }
        streams[frame_stream(next)] += frame_payload(next);
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
    return frame_read(data_fd) == frame_bytes(DATA, stream, debug_answer("200 OK", "echo"));
}

std::string peer::order() const {
    // The device looks for a key and takes the next quoted text, so one text serves five keys.
    std::string text = R"(host1host2host3host4host5 "127.0.0.1")";
    for (int id = 0; id < DATA_CONNECTIONS; ++id) {
        text += "port" + std::to_string(id + 1) + " \"" + std::to_string(data[id].port) + '"';
    }
    return text;
}

std::string peer::discover() const {
    const unique_fd fd = manager.accept();
    std::string request = read_until(fd.get(), "\r\n\r\n");
    write_all(fd.get(), "HTTP/1.1 200 OK\r\n\r\n{\"ret\":0,\"proxy\":\"127.0.0.1:" +
                            std::to_string(control.port) + "\"}");
    return request;
}

unique_fd peer::login() const {
    discover();
    unique_fd fd = control.accept();
    frame_read(fd.get());
    write_all(fd.get(), frame_bytes(LOGIN_ANSWER));
    read_exact(fd.get(), HEADER_SIZE);
    return fd;
}

unique_fd peer::data_login() const {
    unique_fd fd = data[0].accept();
    const int at_once = 1;  // what is written apart arrives apart
    setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &at_once, sizeof at_once);
    frame_read(fd.get());
    write_all(fd.get(), frame_bytes(LOGIN_ANSWER));
    return fd;
}

bool heartbeat_answer(int control_fd, uint32_t sequence) {
    const std::string beat = heartbeat_frame(sequence);
    return read_exact(control_fd, beat.size()) == beat && write_all(control_fd, beat);
}

bool session::log_in() {
    control = server.login();
    return heartbeat_answer(control.get(), 0);
}

bool session::relay() {
    if (!log_in() || !write_all(control.get(), frame_bytes(DATA_ORDER, 0, server.order()))) {
        return false;
    }
    data = server.data_login();
    return static_cast<bool>(data);
}
