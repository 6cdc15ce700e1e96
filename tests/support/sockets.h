// sockets.h - blocking TCP on the loopback address, where every wait has a deadline.
//
// Results: a read hands back what came before the deadline, the end or an error, so that a failed
// expectation shows the bytes that did arrive. Nothing here throws or logs.
#pragma once

#include <netinet/in.h>
#include <unistd.h>

#include <string>
#include <string_view>
#include <utility>

#include "eventually.h"

class unique_fd {  // closes what it holds
   public:
    explicit unique_fd(int descriptor = -1) : fd(descriptor) {}
    unique_fd(unique_fd&& other) noexcept : fd(other.release()) {}
    unique_fd& operator=(unique_fd other) noexcept {
        std::swap(fd, other.fd);
        return *this;
    }
    ~unique_fd() {
        if (fd >= 0) {
            close(fd);
        }
    }

    int get() const { return fd; }
    explicit operator bool() const { return fd >= 0; }
    int release() { return std::exchange(fd, -1); }
    void reset() { *this = unique_fd(); }

   private:
    int fd;
};

struct loopback_listener {  // on a port of the kernel's choice
    unique_fd fd;
    sockaddr_in address;
    uint16_t port;

    explicit loopback_listener(int backlog = SOMAXCONN);  // below 0: refuses connections
    // Empty when nobody connected before the deadline.
    unique_fd accept(test_duration patience = TEST_PATIENCE) const;
};

// Empty when nobody listens there. A receive buffer (bytes) makes a reader that takes little.
unique_fd loopback_connect(uint16_t port, int receive_buffer = 0);

// To the local socket of that path.
unique_fd unix_connect(const std::string& path, int type);

bool write_all(int fd, std::string_view bytes, test_duration patience = TEST_PATIENCE);
std::string read_exact(int fd, size_t size, test_duration patience = TEST_PATIENCE);
// Reads until the text ends with `mark`, and not a byte further.
std::string read_until(int fd, std::string_view mark, test_duration patience = TEST_PATIENCE);
// Reads until the peer closes.
std::string read_to_end(int fd, test_duration patience = TEST_PATIENCE);
// True when the peer ends or resets the connection before the deadline without another byte.
bool closed_by_peer(int fd, test_duration patience = TEST_PATIENCE);
// True when nothing, not even an end, arrives within the time: the one wait that a good run pays.
bool stays_silent(int fd, test_duration time);
