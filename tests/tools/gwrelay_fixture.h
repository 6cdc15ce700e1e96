// gwrelay_fixture.h - the real gwrelay over loopback: the test plays the devices and the users.
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

constexpr test_duration A_MOMENT{200}, A_SECOND{1000};
constexpr int SMALL_BUFFER = 4096;
constexpr char NO_GUARD[] = "--no-dead-port-guard";
const std::string GET_BOX = "GET /box/80/ HTTP/1.1\r\n\r\n";

inline std::string info(const std::string& id) {
    return R"({"deviceid":")" + id + R"(","fwver":"1.2"})";
}

inline unique_fd control_login(const relay& hub, const std::string& id,
                               std::string* answer = nullptr) {
    unique_fd fd = loopback_connect(hub.control);
    write_all(fd.get(), frame_bytes(DEVICE_INFO, 0, info(id), 3));
    std::string got = frame_read(fd.get());
    if (answer != nullptr) {
        *answer = std::move(got);
    }
    return fd;
}

inline unique_fd data_login(const relay& hub, const std::string& id) {
    unique_fd fd = loopback_connect(hub.data);
    write_all(fd.get(), frame_bytes(DEVICE_INFO, 0, info(id), 2));
    EXPECT_EQ(frame_read(fd.get()), frame_bytes(LOGIN_ANSWER));
    return fd;
}

inline unique_fd user_sends(const relay& hub, const std::string& request, int receive_buffer = 0) {
    unique_fd fd = loopback_connect(hub.front, receive_buffer);
    write_all(fd.get(), request);
    return fd;
}

inline std::string fetch(const relay& hub, const std::string& request) {
    return read_to_end(user_sends(hub, request).get());
}

// Reads up to the end, and tells how that came in front of what was read: "end:", "reset:", or ":"
// when there was none before the deadline.
inline std::string read_with_end(const unique_fd& fd) {
    std::string bytes;
    for (char buffer[SMALL_BUFFER];;) {
        pollfd entry{fd.get(), POLLIN, 0};
        const bool ready = poll(&entry, 1, static_cast<int>(TEST_PATIENCE.count())) == 1;
        const ssize_t got = ready ? recv(fd.get(), buffer, sizeof buffer, MSG_DONTWAIT) : -1;
        if (got <= 0) {
            return (got == 0 ? "end:" : ready && errno == ECONNRESET ? "reset:" : ":") + bytes;
        }
        bytes.append(buffer, static_cast<size_t>(got));
    }
}

inline bool still_echoes(const unique_fd& fd) {
    write_all(fd.get(), heartbeat_frame(0x01020304));
    return frame_read(fd.get()) == heartbeat_frame(0x01020304);
}

// A device with one data connection and a user whose request has reached it as stream 1.
struct one_stream {
    relay hub;
    unique_fd data, user;
    explicit one_stream(strings options = {}, const std::string& request = GET_BOX, int buffer = 0)
        : hub((options.push_back(NO_GUARD), options)),
          data(data_login(hub, "box")),
          user(user_sends(hub, request, buffer)) {
        EXPECT_EQ(frame_stream(frame_read(data.get())), 1U);
    }
    bool device_says(const std::string& frames) const { return write_all(data.get(), frames); }
    std::string device_hears() const { return frame_read(data.get()); }
};
