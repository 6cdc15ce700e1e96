#include "main/gwa_log.h"

#include <poll.h>
#include <pthread.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>

std::atomic<int32_t> gwa_log_on{1};
std::atomic<int32_t> gwa_log_level{GWA_LEVEL_DEBUG};

namespace {

constexpr char BACKGROUND_LOG[] = "/tmp/gwad.log";  // fixed, not under the home directory
constexpr size_t STAMP_SIZE = 64;
constexpr int STUCK_WAIT_MS = 200;  // what a slow reader of the log is given to catch up

pthread_mutex_t log_lock = PTHREAD_MUTEX_INITIALIZER;  // guards log_stream and its lines
FILE* log_stream = stderr;                             // null: unset or closed
bool log_stuck = false;                                // guarded too: nobody takes what is written

}  // namespace

int gwa_log_init(const char* path, bool background) {
    FILE* chosen = stderr;
    if (path == nullptr || path[0] == '\0') {
        path = background ? BACKGROUND_LOG : nullptr;
    }
    if (path != nullptr) {
        chosen = fopen(path, "a+e");
    }
    pthread_mutex_lock(&log_lock);
    log_stream = chosen;
    pthread_mutex_unlock(&log_lock);
    return chosen == nullptr ? -1 : 0;
}

int gwa_log_level_set(int level) {
    if (level == GWA_LOG_OFF) {
        gwa_log_on.store(0, std::memory_order_relaxed);
        return 0;
    }
    if (level < GWA_LEVEL_FATAL || level > GWA_LEVEL_DEBUG) {
        return -1;
    }
    gwa_log_level.store(level, std::memory_order_relaxed);
    gwa_log_on.store(1, std::memory_order_relaxed);
    return 0;
}

int gwa_log_level_get(int* out) {
    if (out == nullptr) {
        return -1;
    }
    *out = gwa_log_on.load(std::memory_order_relaxed) != 0
               ? gwa_log_level.load(std::memory_order_relaxed)
               : GWA_LOG_OFF;
    return 0;
}

// True when a write will not block. The log may be a pipe or a terminal that somebody has stopped
// reading: lines are lost then, rather than the relay and its end by a signal. Only the first line
// waits, so that the others do not hold up their threads. The lock is held.
static bool log_ready() {
    pollfd entry{fileno(log_stream), POLLOUT, 0};
    int ready = 0;
    do {
        ready = poll(&entry, 1, log_stuck ? 0 : STUCK_WAIT_MS);
    } while (ready == -1 && errno == EINTR);
    log_stuck = ready == 0;
    return !log_stuck;
}

static void stamp_write() {
    char stamp[STAMP_SIZE] = {};
    const time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    strftime(stamp, sizeof stamp, "<%Y-%m-%d %H:%M:%S> ", &local);
    fputs(stamp, log_stream);
}

// Writes what follows stamp and place, which may have taken the last room. The lock is held.
static void text_write(const char* format, va_list arguments) {
    fflush(log_stream);
    if (log_ready()) {
        vfprintf(log_stream, format, arguments);
        fflush(log_stream);  // at once, so that the line survives a kill
    }
}

int gwa_log_write(const char* format, ...) {
    pthread_mutex_lock(&log_lock);
    if (log_stream != nullptr && log_ready()) {
        stamp_write();
        va_list arguments;
        va_start(arguments, format);
        text_write(format, arguments);
        va_end(arguments);
    }
    pthread_mutex_unlock(&log_lock);
    return 0;
}

void gwa_log_from(const char* file, int line_and_level, const char* function, const char* format,
                  ...) {
    pthread_mutex_lock(&log_lock);
    if (log_stream != nullptr && log_ready()) {
        stamp_write();
        fprintf(log_stream, "[gwad] %s %d %s() <%d> ", file, line_and_level / GWA_LOG_LEVELS,
                function, line_and_level % GWA_LOG_LEVELS);
        va_list arguments;
        va_start(arguments, format);
        text_write(format, arguments);
        va_end(arguments);
    }
    pthread_mutex_unlock(&log_lock);
}

void gwa_log_close() {
    pthread_mutex_lock(&log_lock);
    if (log_stream != nullptr && log_stream != stdout) {
        fclose(log_stream);  // standard error too, intended
    }
    log_stream = nullptr;
    pthread_mutex_unlock(&log_lock);
}
