// gwa_process.h - the state of the process that every floor may read: the run flags, the paths
// under the home directory, the jump codes, and the two ways in which the process ends.
//
// Threads: the flags are written by the main thread and the signal handler and polled by all; the
//          paths are written once at start-up, before there is a second thread.
#pragma once

#include <atomic>
#include <cstdint>

#include "main/gwa_log.h"

// The process run flag, 1 until SIGINT, SIGTERM or an exit request, and the connection-service run
// flag, 1 while data connections are wanted. Relaxed: loops notice them on their next round.
extern std::atomic<int32_t> gwa_process_run;
extern std::atomic<int32_t> gwa_connection_run;

inline bool gwa_process_running() { return gwa_process_run.load(std::memory_order_relaxed) != 0; }
// True while both flags are set: data connections may work.
inline bool gwa_connection_running() {
    return gwa_process_running() && gwa_connection_run.load(std::memory_order_relaxed) != 0;
}

// What the supervisor is told: REINIT or EXIT. RESTART is the number that the log gives a data
// connection which begins anew.
enum gwa_jump : int {
    GWA_JUMP_NONE = 0,
    GWA_JUMP_REINIT = 1,
    GWA_JUMP_RESTART = 2,
    GWA_JUMP_EXIT = 255
};

// The code that the supervisor takes up at its next round; it is a loop with a result code rather
// than a longjmp, so that no frame below it is abandoned. Any thread may store, the main thread
// takes; so far nobody does but tests.
extern std::atomic<int32_t> gwa_process_jump;

constexpr int GWA_HOME_SIZE = 128;  // at most 127 characters
constexpr int GWA_PATH_SIZE = 128;
constexpr int GWA_SHORT_PATH_SIZE = 127;

// The home directory and what lies under it; a home that is too long cuts the paths silently.
struct gwa_paths {
    char home[GWA_HOME_SIZE] = "";  // empty: the paths start at "/"
    char pid_file[GWA_SHORT_PATH_SIZE] = "";
    char dlna_socket[GWA_SHORT_PATH_SIZE] = "";
    char status_file[GWA_PATH_SIZE] = "";
    char firmware_file[GWA_PATH_SIZE] = "";
    char session_id_file[GWA_PATH_SIZE] = "";
};
extern gwa_paths gwa_process_paths;

// Copies the home directory (null: empty) and derives the five paths from it.
void gwa_process_paths_init(const char* home);

// The one exit while threads may run: ends the process at once, without the destructors and exit
// handlers that other threads could still need, and without a flush that could block.
[[noreturn]] void gwa_process_exit(int status);

// Ends the process with SIGABRT after naming the broken rule on standard error. An explicit call,
// so that no build flag removes it. Use GWA_BROKEN_RULE.
[[noreturn]] void gwa_process_abort(const char* file, int line, const char* function);

// Logs the fatal line: function, file, line, so that the words "line %s" show the file (oddity 3).
#define GWA_EXIT_LOG() \
    GWA_LOG(FATAL, "exit from func %s, line %s : %d", __func__, GWA_FILE_NAME, __LINE__)

// Logs the fatal line and exits.
#define GWA_EXIT(status)          \
    do {                          \
        GWA_EXIT_LOG();           \
        gwa_process_exit(status); \
    } while (0)

#define GWA_BROKEN_RULE() gwa_process_abort(GWA_FILE_NAME, __LINE__, __func__)
