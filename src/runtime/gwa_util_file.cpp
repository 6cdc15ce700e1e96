#include "runtime/gwa_util_file.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string_view>

#include "main/gwa_log.h"
#include "runtime/gwa_scoped_fd.h"
#include "runtime/gwa_types.h"
#include "runtime/gwa_util_open.h"

namespace {

constexpr size_t LINE_SIZE = 128;
constexpr int READ_SIZE = 127;  // so that a piece of a line has at most 126 characters

constexpr rlim_t FD_LIMIT_DEFAULT = 4096;
constexpr rlim_t FD_LIMIT_UNLIMITED = 0x7fffffff;
// Some systems allow a thousand million descriptors; trying them all would take minutes, and the
// daemon never has more than a few hundred.
constexpr rlim_t FD_LIMIT_MAX = 65536;

enum firmware_id : unsigned { FIRMWARE_CURVER, FIRMWARE_COMPONENT, FIRMWARE_TERMINAL };

struct firmware_key {
    std::string_view name;
    size_t skipped;  // characters of the value that the tests for its emptiness and end pass over
};

// Oddity 10: a terminal of a single character counts as none.
constexpr firmware_key FIRMWARE_KEYS[] = {{"CURVER=", 0}, {"COMPONENT=", 0}, {"TERMINAL=", 1}};
constexpr size_t FIRMWARE_KEY_COUNT = std::size(FIRMWARE_KEYS);
constexpr unsigned FIRMWARE_ALL_FOUND = (1U << FIRMWARE_KEY_COUNT) - 1;

}  // namespace

static void firmware_value_missing(unsigned id, const char* line) {
    switch (id) {
        case FIRMWARE_CURVER: GWA_LOG(ERROR, "CURVER trancated, %s", line); break;
        case FIRMWARE_COMPONENT: GWA_LOG(ERROR, "COMPONENT trancated, %s", line); break;
        default: GWA_LOG(ERROR, "TERMINAL trancated, %s", line); break;
    }
}

// Takes the value out of a line that may hold the key. True: `value` has been filled.
static bool firmware_line_take(const char* line, unsigned id, gwa_firmware_value& value) {
    const firmware_key& key = FIRMWARE_KEYS[id];
    std::string_view rest = line;
    if (!rest.starts_with(key.name)) {
        return false;
    }
    rest.remove_prefix(key.name.size());
    const size_t end = std::min(rest.find_first_of("\r\n", key.skipped), rest.size());
    if (end <= key.skipped) {
        firmware_value_missing(id, line);
        return false;
    }
    text_copy(value, rest.substr(0, end));
    return true;
}

int gwa_fwver_get(const char* path, gwa_firmware_value& version, gwa_firmware_value& component,
                  gwa_firmware_value& terminal) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);  // exception 57
    FILE* file = fd == -1 ? nullptr : fdopen(fd, "r");
    if (file == nullptr) {
        close(fd);
        GWA_LOG(ERROR, "open firmware version file %s", path);
        return GWA_FAILED;
    }
    gwa_firmware_value* values[FIRMWARE_KEY_COUNT] = {&version, &component, &terminal};
    unsigned found = 0;  // one bit a key
    char line[LINE_SIZE];
    // A longer line comes in pieces, each of which may start with a key.
    while (found != FIRMWARE_ALL_FOUND && fgets(line, READ_SIZE, file) != nullptr) {
        for (unsigned i = 0; i < FIRMWARE_KEY_COUNT; ++i) {
            if (firmware_line_take(line, i, *values[i])) {
                found |= 1U << i;
            }
        }
    }
    fclose(file);
    return found == FIRMWARE_ALL_FOUND ? GWA_OK : GWA_FAILED;
}

int gwa_file_replace(const char* path) {
    const int fd = gwa_open(path, O_WRONLY | O_CREAT | O_TRUNC, GWA_MODE_FOR_READERS);
    if (fd == -1 && errno == EPERM) {
        GWA_LOG(ERROR, "%s is not written, it may be another user's trap", path);
    }
    return fd;
}

int gwa_file_write(const char* path, const void* data, size_t length) {
    const scoped_fd file(gwa_file_replace(path));
    if (file.fd == -1) {
        GWA_LOG(ERROR, "open file failed");
        return GWA_FAILED;
    }
    // A full disk costs this write and nothing else: the next one replaces the file anyway.
    [[maybe_unused]] const ssize_t written = write(file.fd, data, length);
    return GWA_OK;
}

int gwa_close_all_fds() {
#ifdef SYS_close_range
    if (syscall(SYS_close_range, 0U, ~0U, 0U) == 0) {
        return 0;
    }
#endif
    rlimit limit{};
    const bool known = getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY &&
                       limit.rlim_cur != FD_LIMIT_UNLIMITED;
    const rlim_t count = known ? std::min(limit.rlim_cur, FD_LIMIT_MAX) : FD_LIMIT_DEFAULT;
    for (rlim_t fd = 0; fd < count; ++fd) {
        close(static_cast<int>(fd));
    }
    return 0;
}
