#include "net/outbox.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "base/log.h"

namespace {

constexpr size_t PORTION = 64 * 1024;  // written to the file at once; room for it ends being full
constexpr size_t KEPT = 16 * 1024;     // memory that an empty outbox of a user keeps

// A file without a name. Not every file system makes one at once.
int nameless_file(const std::string& folder) {
    const int fd = open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (fd >= 0) {
        return fd;
    }
    std::string name = folder + "/gwrelay.XXXXXX";
    const int named = mkostemp(name.data(), O_CLOEXEC);
    if (named >= 0) {
        unlink(name.c_str());
    }
    return named;
}

}  // namespace

outbox::~outbox() {
    if (pool != nullptr) {
        pool->used -= size();
    }
    if (fd >= 0) {
        close(fd);
    }
}

void outbox::append(std::string_view bytes) {
    if (pool != nullptr) {
        pool->used += bytes.size();
    }
    const bool behind = file_size > 0 || !tail.empty();
    const size_t room = OUTBOX_MEMORY - std::min(size(), OUTBOX_MEMORY);
    const size_t here = pool == nullptr ? bytes.size() : behind ? 0 : std::min(room, bytes.size());
    if (here > 0 && gone * 2 >= head.size()) {
        head.erase(0, std::exchange(gone, 0));
    }
    head += bytes.substr(0, here);
    tail += bytes.substr(here);
    spill();
    judge();
}

void outbox::remove(size_t count) {
    gone += count;
    if (pool != nullptr) {
        pool->used -= count;
    }
    if (gone < head.size()) {
        return judge();
    }
    refill();
    spill();
    if (empty() && pool != nullptr && head.capacity() > KEPT) {
        head = {};
        tail = {};
    }
    judge();
}

// The first user whose bytes cannot be kept tells why; the others are only full.
bool outbox::file_open() {
    if (fd < 0) {
        fd = nameless_file(pool->folder);
    }
    if (fd < 0 && !std::exchange(pool->failing, true)) {
        log_line(PROBLEM, "no file in %s for what users have not taken: %s", pool->folder.c_str(),
                 strerror(errno));
    }
    return fd >= 0;
}

void outbox::spill() {
    if (pool == nullptr || tail.size() < PORTION || pool->used > pool->total_max || !file_open()) {
        return;
    }
    while (!tail.empty() && file_size < pool->each_max) {
        const size_t at = (file_begin + file_size) % pool->each_max;
        const size_t room = std::min(pool->each_max - file_size, pool->each_max - at);
        const ssize_t put =
            pwrite(fd, tail.data(), std::min(tail.size(), room), static_cast<off_t>(at));
        if (put <= 0) {
            if (!std::exchange(pool->failing, true)) {
                log_line(PROBLEM, "what users have not taken cannot be written to %s: %s",
                         pool->folder.c_str(), strerror(errno));
            }
            return;
        }
        pool->failing = false;
        file_size += static_cast<size_t>(put);
        tail.erase(0, static_cast<size_t>(put));
    }
}

void outbox::refill() {
    head.clear();
    gone = 0;
    if (file_size == 0) {
        std::swap(head, tail);
        return;
    }
    const size_t size = std::min({OUTBOX_MEMORY, file_size, pool->each_max - file_begin});
    head.resize(size);
    if (pread(fd, head.data(), size, static_cast<off_t>(file_begin)) !=
        static_cast<ssize_t>(size)) {
        unreadable = true;
        head.clear();
        return;
    }
    file_size -= size;
    file_begin = (file_begin + size) % pool->each_max;
    if (file_size == 0) {  // what has been read must not fill the disk
        file_begin = 0;
        unreadable = ftruncate(fd, 0) != 0;
    }
}

void outbox::judge() {
    if (pool == nullptr) {
        return;
    }
    const size_t room = is_full ? std::min(PORTION, pool->each_max / 2) : 0;
    is_full = size() + room >= pool->each_max || tail.size() >= PORTION;
}
