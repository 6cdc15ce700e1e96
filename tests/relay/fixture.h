// fixture.h - the real gwrelay over loopback: the test plays the devices and the users.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include "support/frames.h"
#include "support/relay_program.h"
#include "support/sockets.h"

using namespace std::string_literals;
using strings = std::vector<std::string>;
using relay = relay_program;

constexpr test_duration A_MOMENT{200};
constexpr int SMALL_BUFFER = 4096;
constexpr char NO_GUARD[] = "--no-dead-port-guard";
// Users who want one answer, and services that give one; and what they say when they would go on.
const std::string CLOSE = "Connection: close\r\n";
const std::string HTTP_ON = " HTTP/1.1\r\n", OK_ON = "HTTP/1.1 200 OK\r\n";
const std::string HTTP = HTTP_ON + CLOSE, OK = OK_ON + CLOSE;
const std::string OK_X = OK + "Content-Length: 1\r\n\r\nx";
// What a service is told of a user who has named no host.
const std::string FORWARDED = "X-Forwarded-For: 127.0.0.1\r\nX-Forwarded-Proto: http\r\n";
const std::string GET_BOX = "GET /box/80/" + HTTP + "\r\n";

inline bool has(std::string_view text, std::string_view part) {
    return text.find(part) != text.npos;
}

inline std::string info(const std::string& id) {
    return R"({"deviceid":")" + id + R"(","fwver":"1.2"})";
}

inline unique_fd say_to(uint16_t port, std::string_view bytes, int receive_buffer = 0) {
    unique_fd fd = loopback_connect(port, receive_buffer);
    write_all(fd.get(), bytes);
    return fd;
}

inline std::string login_frame(uint8_t version, const std::string& json) {
    return frame_bytes(DEVICE_INFO, 0, json, version);
}

inline unique_fd login(uint16_t port, uint8_t version, const std::string& json,
                       int receive_buffer = 0) {
    unique_fd fd = say_to(port, login_frame(version, json), receive_buffer);
    EXPECT_FALSE(frame_read(fd.get()).empty());
    return fd;
}

inline unique_fd control_login(const relay& hub, const std::string& id) {
    return login(hub.control, 3, info(id));
}

inline unique_fd data_login(const relay& hub, const std::string& id) {
    return login(hub.data, 2, info(id));
}

inline std::string fetch(const relay& hub, const std::string& request) {
    return read_to_end(say_to(hub.front, request).get());
}

inline std::string get(const relay& hub, const std::string& path) {
    return fetch(hub, "GET " + path + HTTP + "\r\n");
}

inline std::string body(const std::string& reply) {
    return reply.substr(reply.find("\r\n\r\n") + 4);
}

// The last number of that name.
inline uint64_t number_in(const std::string& json, const std::string& name) {
    const size_t at = json.rfind("\"" + name + "\":");
    return at == json.npos ? 0 : std::stoull(json.substr(at + name.size() + 3));
}

// Reads up to the end, and tells how that came in front of what was read: "end:", "reset:", or ":"
// when there was none before the deadline.
inline std::string read_with_end(const unique_fd& fd) {
    errno = 0;
    const std::string bytes = read_to_end(fd.get());
    const bool reset = errno == ECONNRESET;
    return (reset ? "reset:" : closed_by_peer(fd.get(), test_duration{}) ? "end:" : ":") + bytes;
}

inline bool still_echoes(const unique_fd& fd) {
    write_all(fd.get(), heartbeat_frame(0x01020304));
    return frame_read(fd.get()) == heartbeat_frame(0x01020304);
}

// The data frames that carry these bytes.
inline std::string data_frames(uint32_t stream, std::string_view bytes) {
    std::string frames;
    for (; !bytes.empty(); bytes.remove_prefix(std::min(bytes.size(), PAYLOAD_MAX))) {
        frames += frame_bytes(DATA, stream, bytes.substr(0, PAYLOAD_MAX));
    }
    return frames;
}

// A relay, and a device with one data connection.
struct device {
    relay hub;
    unique_fd control = control_login(hub, "box"), data = data_login(hub, "box");
    uint32_t stream = 0;  // the last one's id
    std::string opening;  // the payload of its first frame

    explicit device(strings options = {}, bool guarded = false)
        : hub(guarded ? options : (options.push_back(NO_GUARD), options)) {}
    std::string hears() const { return frame_read(data.get()); }
    bool says(const std::string& frames) const { return write_all(data.get(), frames); }
    bool answers(const std::string& bytes) const { return says(data_frames(stream, bytes)); }
    // A user whose request has reached the device as the next stream.
    unique_fd user(const std::string& request = GET_BOX, int receive_buffer = 0) {
        unique_fd fd = say_to(hub.front, request, receive_buffer);
        const std::string frame = hears();
        opening = frame_payload(frame);
        EXPECT_EQ(frame, frame_bytes(DATA, ++stream, opening));
        return fd;
    }
};
