#include "runtime/gwa_util_line.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

constexpr int CATCH_UP_MS = 200;  // what a slow reader is given
constexpr size_t LINK_SIZE = 32;  // "/proc/self/fd/2"

}  // namespace

// A descriptor of our own on what is behind `fd`, or -1: no /proc, or the terminal is another
// user's.
static int private_descriptor(int fd) {
    char link[LINK_SIZE];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    return open(link, O_WRONLY | O_APPEND | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
}

void gwa_line_open(gwa_line_sink* sink, int fd) {
    sink->fd = fd;
    sink->way = gwa_line_way::WRITE;
    struct stat what {};
    if (fstat(fd, &what) != 0 || S_ISREG(what.st_mode)) {
        return;
    }
    if (S_ISSOCK(what.st_mode)) {
        sink->way = gwa_line_way::SEND;
        return;
    }
    const int own = private_descriptor(fd);
    if (own == -1) {
        sink->way = gwa_line_way::SWITCH;
    } else {
        sink->fd = own;
        sink->own = true;
    }
}

void gwa_line_close(gwa_line_sink* sink) {
    if (sink->own) {
        close(sink->fd);
    }
    sink->fd = -1;
    sink->own = false;
    sink->begin = sink->end = 0;
    sink->gathered = false;
    sink->stuck = false;
}

// The mode belongs to the description, which sinks share: of two at a time one would undo the
// other's mode, and block. Not a lock, because a signal handler may find it taken by its own
// thread.
static std::atomic_flag switching;

ptrdiff_t gwa_line_write_now(const gwa_line_sink* sink, const char* bytes, size_t size) {
    switch (sink->way) {
        case gwa_line_way::WRITE: break;
        case gwa_line_way::SEND: return send(sink->fd, bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL);
        case gwa_line_way::SWITCH: {
            if (switching.test_and_set(std::memory_order_acquire)) {
                errno = EAGAIN;
                return -1;
            }
            const int flags = fcntl(sink->fd, F_GETFL);
            fcntl(sink->fd, F_SETFL, flags | O_NONBLOCK);
            const ssize_t written = write(sink->fd, bytes, size);
            const int reason = errno;
            fcntl(sink->fd, F_SETFL, flags);
            switching.clear(std::memory_order_release);
            errno = reason;
            return written;
        }
    }
    return write(sink->fd, bytes, size);
}

// Waits a moment for room, but not while nobody reads anyway. True: it is worth another attempt.
static bool catch_up(const gwa_line_sink* sink) {
    pollfd entry{sink->fd, POLLOUT, 0};
    return errno == EAGAIN && !sink->stuck && poll(&entry, 1, CATCH_UP_MS) == 1;
}

// Sends what is in the buffer. True: nothing is left.
static bool drain(gwa_line_sink* sink) {
    bool waited = false;
    while (sink->begin < sink->end) {
        const ptrdiff_t written =
            gwa_line_write_now(sink, &sink->buffer[sink->begin], sink->end - sink->begin);
        if (written > 0) {
            sink->begin += static_cast<size_t>(written);
            sink->stuck = false;
        } else if (written == 0 || errno != EINTR) {
            if (waited || !catch_up(sink)) {
                sink->stuck = true;
                return false;
            }
            waited = true;
        }
    }
    return true;
}

// What nothing was taken of is dropped whole.
static void drain_or_drop(gwa_line_sink* sink) {
    sink->gathered = false;
    if (!drain(sink) && sink->begin == 0) {
        sink->end = 0;
    }
}

bool gwa_line_begin(gwa_line_sink* sink) {
    if (sink->gathered) {
        return true;
    }
    if (sink->fd == -1 || !drain(sink)) {
        return false;
    }
    sink->begin = sink->end = 0;
    return true;
}

void gwa_line_add_text(gwa_line_sink* sink, const char* text) {
    const size_t size = std::min(strlen(text), sink->buffer.size() - sink->end - 1);
    memcpy(&sink->buffer[sink->end], text, size);
    sink->end += size;
}

void gwa_line_add_list(gwa_line_sink* sink, const char* format, va_list arguments) {
    const std::span<char> room = sink->buffer.subspan(sink->end);
    const int wanted = vsnprintf(room.data(), room.size(), format, arguments);
    sink->end += std::min(static_cast<size_t>(std::max(wanted, 0)), room.size() - 1);
}

void gwa_line_add(gwa_line_sink* sink, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    gwa_line_add_list(sink, format, arguments);
    va_end(arguments);
}

static void end_line(gwa_line_sink* sink) {
    if (sink->end + 1 == sink->buffer.size()) {
        sink->buffer[sink->end - 1] = '\n';  // it was cut, and its end with it
    }
}

void gwa_line_end(gwa_line_sink* sink) {
    end_line(sink);
    drain_or_drop(sink);
}

void gwa_line_end_later(gwa_line_sink* sink) {
    end_line(sink);
    sink->gathered = sink->buffer.size() - sink->end >= GWA_LINE_MAX;
    if (!sink->gathered) {
        drain_or_drop(sink);
    }
}

void gwa_line_flush(gwa_line_sink* sink) {
    if (sink->gathered) {
        drain_or_drop(sink);
    }
}
