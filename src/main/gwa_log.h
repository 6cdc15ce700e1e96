// gwa_log.h - the one process-wide log: a file or standard error, a switch and a verbose level.
//
// Threads: any thread may log. A lock keeps the lines whole and makes logging after the log has
//          been closed a no-op instead of a use of a closed stream.
// Results: 0, or -1 where a function can fail.
//
// There is no rotation and no size limit: the file grows until the box clears it. Lines for which a
// pipe or a terminal has no room are dropped whole: nobody who stops reading may stop the daemon.
#pragma once

#include <atomic>
#include <cstdint>

// Levels, most severe first.
#define GWA_LEVEL_FATAL 0     // fatal, or a step in the life of the process
#define GWA_LEVEL_PROGRESS 1  // connection progress
#define GWA_LEVEL_RESULT 2    // important results
#define GWA_LEVEL_ERROR 3     // errors
#define GWA_LEVEL_REFUSAL 4   // refused requests of remote users
#define GWA_LEVEL_CREATE 5    // descriptors made
#define GWA_LEVEL_INFO 6      // settings, sizes
#define GWA_LEVEL_DEBUG 7     // traces

constexpr int GWA_LOG_LEVELS = 8;
constexpr int GWA_LOG_OFF = -1;  // as a level: writes nothing

// Whether anything is written, and up to which level. Relaxed: each stands alone, and a line more
// or less while the level changes harms nobody.
extern std::atomic<int32_t> gwa_log_on;
extern std::atomic<int32_t> gwa_log_level;

inline bool gwa_log_enabled(int level) {
    return gwa_log_on.load(std::memory_order_relaxed) != 0 &&
           gwa_log_level.load(std::memory_order_relaxed) >= level;
}

// The name of a source file without its folders; compilers do the search. g++ has __FILE_NAME__
// from version 12 on only.
#define GWA_FILE_NAME (__builtin_strrchr("/" __FILE__, '/') + 1)

// Writes one line; the level is tested before the arguments are formatted.
#define GWA_LOG(level, text, ...) GWA_LOG_UNENDED(level, text "\n" __VA_OPT__(, ) __VA_ARGS__)

// The same without the line end, for the texts that have none.
#define GWA_LOG_UNENDED(level, text, ...) \
    GWA_LOG_FROM(level, GWA_FILE_NAME, __LINE__, __func__, text __VA_OPT__(, ) __VA_ARGS__)

// The same on behalf of a caller: for the lines about socket options, which name the login.
#define GWA_LOG_FROM(level, file, line, function, text, ...)                         \
    do {                                                                             \
        if (gwa_log_enabled(GWA_LEVEL_##level)) {                                    \
            gwa_log_write(file, (line)*GWA_LOG_LEVELS + GWA_LEVEL_##level, function, \
                          text __VA_OPT__(, ) __VA_ARGS__);                          \
        }                                                                            \
    } while (0)

// Chooses the stream. No path: standard error, or "/tmp/gwad.log" in background mode; otherwise the
// file is opened for appending. Before the first call lines go to standard error at level 7.
// -1: the file cannot be opened, and there is no stream.
int gwa_log_init(const char* path, bool background);
// -1 turns logging off and keeps the level; 0 to 7 turn it on. Anything else: -1, nothing changes.
int gwa_log_level_set(int level);
// Stores the level, or -1 while logging is off. -1: `out` is null.
int gwa_log_level_get(int* out);
// Writes the time stamp, the place ("[gwad] file line function() <level> ") and the formatted text
// at once, so that the line survives a kill. One number for line and level, and no such prefix in
// every format: with hundreds of calls that is what keeps the program small. Use GWA_LOG instead.
// Always 0.
int gwa_log_write(const char* file, int line_and_level, const char* function, const char* format,
                  ...) __attribute__((format(printf, 4, 5)));
// Exception 70: while one lives, traces (level 7) of all threads wait for its end, or for a line of
// another level, and then reach the file by one write: for what is told of one event in many lines.
// Nothing that could wait or end the process belongs in its block.
struct gwa_log_gather {
    bool traces;

    gwa_log_gather();
    gwa_log_gather(gwa_log_gather&&) = delete;
    ~gwa_log_gather();
};
// Closes the stream, standard error included, unless it is standard output. Later lines are
// dropped.
void gwa_log_close();
