// gwa_scoped_fd.h - the owner of one descriptor.
#pragma once

#include <unistd.h>

#include <utility>

// Keeps early returns short: closes the descriptor at the end of its block unless it was released.
struct scoped_fd {
    int fd;  // -1: holds nothing

    explicit scoped_fd(int descriptor) : fd(descriptor) {}
    scoped_fd(scoped_fd&&) = delete;
    ~scoped_fd() {
        if (fd != -1) {
            close(fd);  // once: after EINTR the number is free already and may be another thread's
        }
    }
    int release() { return std::exchange(fd, -1); }  // the caller closes it from here on
};
