// process.h - one input is one process: how it begins, and how it ends when the code wants it to.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string_view>

// The target: handles one input. 0.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size);

// What ends the process on purpose comes here instead: an exit, a broken rule, a restart.
[[noreturn]] void process_ends();

// Fresh flags, log and tables; then the body, up to its end or the process's.
void process_run(const std::function<void()>& body);

// What must hold whatever the input is.
inline void must(bool holds) {
    if (!holds) {
        abort();
    }
}

// Bytes in a heap block of exactly their size, so that AddressSanitizer sees a step past their end.
struct exact_bytes {
    size_t size;
    std::unique_ptr<char[]> bytes;
    explicit exact_bytes(std::string_view from, bool terminated = false)
        : size(from.size() + (terminated ? 1 : 0)), bytes(new char[size]{}) {
        from.copy(bytes.get(), from.size());
    }
    char* data() { return bytes.get(); }
    const uint8_t* unsigned_data() const { return reinterpret_cast<const uint8_t*>(bytes.get()); }
};

// Takes an input apart, front first; what is missing is 0 or empty.
struct input_text {
    std::string_view rest;
    input_text(const uint8_t* bytes, size_t size)
        : rest(reinterpret_cast<const char*>(bytes), size) {}
    std::string_view take(size_t size) {
        const std::string_view taken = rest.substr(0, size);
        rest.remove_prefix(taken.size());
        return taken;
    }
    uint8_t byte() {
        const std::string_view taken = take(1);
        return taken.empty() ? uint8_t{0} : static_cast<uint8_t>(taken.front());
    }
    bool empty() const { return rest.empty(); }
};
