// gwa_log.h - the one process-wide log: a file or standard error, a switch and a verbose level.
//
// Threads: any thread may log. A lock keeps the lines whole and makes logging after the log has
//          been closed a no-op instead of a use of a closed stream.
// Results: 0, or -1 where a function can fail.
//
// There is no rotation and no size limit: the file grows until the box clears it or moves it away;
// then the next line that comes a second later opens it anew (exception 72). Lines for which a pipe
// or a terminal has no room are dropped whole: nobody who stops reading may stop the daemon.
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

constexpr int GWA_LOG_OFF = -1;  // as a level: writes nothing

// What is written: lines up to this level, none when it is GWA_LOG_OFF. One number, because each of
// hundreds of calls asks. Relaxed: it stands alone, and a line more or less while it changes harms
// nobody.
extern std::atomic<int32_t> gwa_log_level;

inline bool gwa_log_enabled(int level) {
    return gwa_log_level.load(std::memory_order_relaxed) >= level;
}

// The name of a source file without its folders. g++ has it from version 12 on only, and does the
// search itself before; clang does not.
#ifdef __FILE_NAME__
#define GWA_FILE_NAME __FILE_NAME__
#else
#define GWA_FILE_NAME (__builtin_strrchr("/" __FILE__, '/') + 1)
#endif

// Writes one line; the level is tested before the arguments are formatted. Lines of errors and
// above are seldom switched off: their level is tested inside, which saves that code in 250 places.
#define GWA_LOG(level, text, ...) GWA_LOG_UNENDED(level, text "\n" __VA_OPT__(, ) __VA_ARGS__)

// The same without the line end, for the texts that have none.
#define GWA_LOG_UNENDED(level, text, ...)                                                     \
    do {                                                                                      \
        if (GWA_LEVEL_##level <= GWA_LEVEL_ERROR || gwa_log_enabled(GWA_LEVEL_##level)) {     \
            static constexpr gwa_log_place gwa_place{GWA_FILE_NAME, __func__, text, __LINE__, \
                                                     GWA_LEVEL_##level};                      \
            gwa_log_write(&gwa_place __VA_OPT__(, ) __VA_ARGS__);                             \
            GWA_LOG_CHECK(text __VA_OPT__(, ) __VA_ARGS__);                                   \
        }                                                                                     \
    } while (0)

// The same on behalf of a caller, with the line end: for the lines about socket options, which name
// the login.
#define GWA_LOG_FOR(level, caller, text, ...)                                             \
    do {                                                                                  \
        if (GWA_LEVEL_##level <= GWA_LEVEL_ERROR || gwa_log_enabled(GWA_LEVEL_##level)) { \
            const gwa_log_place gwa_place{GWA_FILE_NAME, caller, text "\n", __LINE__,     \
                                          GWA_LEVEL_##level};                             \
            gwa_log_write(&gwa_place __VA_OPT__(, ) __VA_ARGS__);                         \
            GWA_LOG_CHECK(text __VA_OPT__(, ) __VA_ARGS__);                               \
        }                                                                                 \
    } while (0)

// What a call says whatever its arguments are: one address to hand over in each of hundreds of
// calls, which is what keeps the program small.
struct gwa_log_place {
    const char* file;
    const char* function;
    const char* format;
    int16_t line, level;
};

// Has the compiler compare format and arguments, which it would not do inside a structure.
#define GWA_LOG_CHECK(...)              \
    do {                                \
        if (false) {                    \
            gwa_log_check(__VA_ARGS__); \
        }                               \
    } while (0)
void gwa_log_check(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Chooses the stream. No path: standard error, or "/tmp/gwad.log" in background mode; otherwise the
// file is opened for appending, and the path outlives the log. Before the first call lines go to
// standard error at level 7. -1: the file cannot be opened, errno says why as gwa_open does, and
// there is no stream.
int gwa_log_init(const char* path, bool background);
// -1 turns logging off and keeps the level; 0 to 7 turn it on. Anything else: -1, nothing changes.
int gwa_log_level_set(int level);
// Stores the level, or -1 while logging is off. -1: `out` is null.
int gwa_log_level_get(int* out);
// Writes the time stamp, the place ("[gwad] file line function() <level> ") and the formatted text
// at once, so that the line survives a kill. Use GWA_LOG instead. Always 0.
int gwa_log_write(const gwa_log_place* place, ...);
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
