#include "runtime/gwa_util_memory.h"

#include <cstdlib>

#include "runtime/gwa_process.h"

namespace {

constexpr int ROUND_UP_MIN = 32;
constexpr int ROUND_UP_MIN_SHIFT = 5;
constexpr int ROUND_UP_MAX = 8192;

}  // namespace

int gwa_round_up(int size) {
    if (size < 1) {
        GWA_LOG(ERROR, "size is less than 0");
        return 0;
    }
    if (size >= ROUND_UP_MAX) {
        return size;
    }
    int rounded = ROUND_UP_MIN;
    for (int rest = (size - 1) >> ROUND_UP_MIN_SHIFT; rest != 0; rest >>= 1) {
        rounded <<= 1;
    }
    return rounded;
}

void* gwa_malloc(int size, const char* file, int line, const char* function) {
    if (size < 1) {
        GWA_LOG(ERROR, "size is <= 0");
        GWA_BROKEN_RULE();
    }
    const int rounded = gwa_round_up(size);
    void* memory = malloc(static_cast<size_t>(rounded));
    if (memory == nullptr) {
        GWA_LOG(FATAL, "malloc failed, request size %d, %s %d %s", rounded, file, line, function);
        GWA_LOG(FATAL, "exit from func %s, line %s : %d", function, file, line);
        gwa_process_exit(1);
    }
    return memory;
}
