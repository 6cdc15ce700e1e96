// eventually.h - waiting for what another process or thread brings about.
#pragma once

#include <chrono>
#include <thread>

using test_duration = std::chrono::milliseconds;
// Long enough for a loaded machine under a sanitizer; only a failing test ever waits for it.
constexpr test_duration TEST_PATIENCE{10000};

// True as soon as `holds()` is; false when it still is not at the deadline.
template <typename Predicate>
bool eventually(Predicate holds, test_duration patience = TEST_PATIENCE) {
    constexpr test_duration LOOK_EVERY{3};
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (!holds()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(LOOK_EVERY);
    }
    return true;
}
