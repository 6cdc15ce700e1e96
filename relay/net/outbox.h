// outbox.h - bytes that wait to go out on a connection: the first in memory, those behind in a
// file.
//
// Devices' connections keep all in memory: what waits there is an upload, which is bounded by not
// reading it. What a device sends cannot be held back without holding back others, so a user's
// outbox is deep, and what it takes beyond some memory lies in a file without a name, which nobody
// else sees and nothing leaves behind.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// In memory, of each outbox. Big enough to keep a fast socket busy, small enough that a thousand
// slow ones do no harm.
constexpr size_t OUTBOX_MEMORY = 256 * 1024;

// What the outboxes of all users share. Outlives them.
struct outbox_pool {
    size_t each_max;       // a user's bytes, in memory and file
    uint64_t total_max;    // of all users; beyond it nobody gets a file
    std::string folder;    // where the files are
    uint64_t used = 0;     // bytes that wait, of all users
    bool failing = false;  // the last file could not be written, which has been logged
};

class outbox {
   public:
    outbox() = default;
    outbox(outbox&&) = delete;
    ~outbox();

    void use_files(outbox_pool& common) { pool = &common; }
    // Always succeeds. Whoever adds to what is full has only himself to blame for the memory.
    void append(std::string_view bytes);
    std::string_view front() const { return std::string_view(head).substr(gone); }
    void remove(size_t count);  // from the front, at most its size

    bool empty() const { return size() == 0; }
    size_t size() const { return head.size() - gone + file_size + tail.size(); }
    // No more can be kept well. Ends only when there is room for a good portion.
    bool full() const { return pool == nullptr ? size() >= OUTBOX_MEMORY : is_full; }
    bool lost() const { return unreadable; }  // the file does not give back what it was given

   private:
    void spill();
    void refill();
    bool file_open();
    void judge();

    outbox_pool* pool = nullptr;
    std::string head;  // the oldest bytes, of which the first `gone` have left
    size_t gone = 0;
    std::string tail;  // the newest bytes, on their way into the file; empty while that is not used
    int fd = -1;
    size_t file_begin = 0, file_size = 0;  // a ring of pool->each_max bytes
    bool is_full = false, unreadable = false;
};
