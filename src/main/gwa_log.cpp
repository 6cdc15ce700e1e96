#include "main/gwa_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <ctime>

#include "runtime/gwa_scoped_fd.h"
#include "runtime/gwa_util_line.h"
#include "runtime/gwa_util_lock.h"
#include "runtime/gwa_util_open.h"
#include "runtime/gwa_util_time.h"

std::atomic<int32_t> gwa_log_level{GWA_LEVEL_DEBUG};

namespace {

constexpr char BACKGROUND_LOG[] = "/tmp/gwad.log";  // fixed, not under the home directory
constexpr size_t STAMP_SIZE = 64;

gwa_mutex log_lock;
// Holds every line but one that quotes an endless option (exception 64), and others before it.
char lines[2 * GWA_LINE_MAX];
gwa_line_sink log_sink GWA_GUARDED_BY(log_lock){.fd = STDERR_FILENO, .buffer = lines};
bool to_standard_error GWA_GUARDED_BY(log_lock) = true;
char stamp[STAMP_SIZE] GWA_GUARDED_BY(log_lock) = "";
time_t stamped GWA_GUARDED_BY(log_lock) = -1;  // the second of that
int gathering GWA_GUARDED_BY(log_lock) = 0;    // gwa_log_gather that live

// The file that the log is, null where nobody can move it away; and when it was last looked for.
const char* file_path GWA_GUARDED_BY(log_lock) = nullptr;
dev_t file_device GWA_GUARDED_BY(log_lock) = 0;
ino_t file_inode GWA_GUARDED_BY(log_lock) = 0;
int32_t file_looked GWA_GUARDED_BY(log_lock) = 0;

}  // namespace

// Has the log go to what is at the path. -1: errno says why, and the log goes on as before.
static int file_open(const char* path) GWA_REQUIRES(log_lock) {
    scoped_fd fd(gwa_open(path, O_RDWR | O_CREAT | O_APPEND, GWA_MODE_PRIVATE));
    struct stat file {};
    if (fd.fd == -1 || fstat(fd.fd, &file) != 0) {
        return -1;
    }
    gwa_line_flush(&log_sink);
    gwa_line_close(&log_sink);
    log_sink.way = gwa_line_way::WRITE;
    log_sink.fd = fd.release();
    log_sink.own = true;
    file_path = S_ISREG(file.st_mode) ? path : nullptr;
    file_device = file.st_dev;
    file_inode = file.st_ino;
    return 0;
}

// Exception 72: looks once a second whether the file still has its name.
static void file_follow() GWA_REQUIRES(log_lock) {
    if (file_path == nullptr || file_looked == gwa_now_get()) {
        return;
    }
    file_looked = gwa_now_get();
    struct stat file {};
    if (stat(file_path, &file) != 0 || file.st_dev != file_device || file.st_ino != file_inode) {
        file_open(file_path);  // if it cannot be opened, who has the old one still gets the lines
    }
}

int gwa_log_init(const char* path, bool background) {
    if (path == nullptr || path[0] == '\0') {
        path = background ? BACKGROUND_LOG : nullptr;
    }
    const gwa_lock held(log_lock);
    gwa_line_flush(&log_sink);
    gwa_line_close(&log_sink);
    file_path = nullptr;
    to_standard_error = path == nullptr;
    if (!to_standard_error) {
        return file_open(path);
    }
    gwa_line_open(&log_sink, STDERR_FILENO);
    return log_sink.fd == -1 ? -1 : 0;
}

int gwa_log_level_set(int level) {
    if (level < GWA_LOG_OFF || level > GWA_LEVEL_DEBUG) {
        return -1;
    }
    gwa_log_level.store(level, std::memory_order_relaxed);
    return 0;
}

int gwa_log_level_get(int* out) {
    if (out == nullptr) {
        return -1;
    }
    *out = gwa_log_level.load(std::memory_order_relaxed);
    return 0;
}

// Begins a line with its time stamp. False: the line is lost.
static bool stamped_line_begin() GWA_REQUIRES(log_lock) {
    file_follow();
    if (!gwa_line_begin(&log_sink)) {
        return false;
    }
    const time_t now = time(nullptr);
    if (now != stamped) {  // a busy second has thousands of lines
        tm local{};
        localtime_r(&now, &local);
        strftime(stamp, sizeof stamp, "<%Y-%m-%d %H:%M:%S> ", &local);
        stamped = now;
    }
    gwa_line_add_text(&log_sink, stamp);
    return true;
}

// "[gwad] file line function() <level> ", by hand: a busy trace spends most of its time here.
static void place_add(const gwa_log_place& place) GWA_REQUIRES(log_lock) {
    char digits[] = "       ";  // of a line, between two blanks
    char* begin = &digits[sizeof digits - 2];
    for (int left = place.line; left > 0 && begin > &digits[1]; left /= 10) {
        *--begin = static_cast<char>('0' + left % 10);
    }
    const char level_digit[] = {static_cast<char>('0' + place.level), '\0'};
    const char* const pieces[] = {"[gwad] ",      place.file, " ",         begin,
                                  place.function, "() <",     level_digit, "> "};
    for (const char* const piece : pieces) {
        gwa_line_add_text(&log_sink, piece);
    }
}

int gwa_log_write(const gwa_log_place* place, ...) {
    if (!gwa_log_enabled(place->level)) {
        return 0;
    }
    const int reason = errno;  // callers go on to speak of it
    const gwa_lock held(log_lock);
    if (stamped_line_begin()) {
        place_add(*place);
        va_list arguments;
        va_start(arguments, place);
        gwa_line_add_list(&log_sink, place->format, arguments);
        va_end(arguments);
        if (gathering > 0 && place->level == GWA_LEVEL_DEBUG) {
            gwa_line_end_later(&log_sink);
        } else {
            gwa_line_end(&log_sink);
        }
    }
    errno = reason;
    return 0;
}

gwa_log_gather::gwa_log_gather() : traces(gwa_log_enabled(GWA_LEVEL_DEBUG)) {
    if (traces) {
        const gwa_lock held(log_lock);
        gathering++;
    }
}

gwa_log_gather::~gwa_log_gather() {
    if (traces) {
        const int reason = errno;
        const gwa_lock held(log_lock);
        if (--gathering == 0) {
            gwa_line_flush(&log_sink);
        }
        errno = reason;
    }
}

void gwa_log_close() {
    const gwa_lock held(log_lock);
    gwa_line_flush(&log_sink);
    gwa_line_close(&log_sink);
    file_path = nullptr;
    if (to_standard_error) {
        close(STDERR_FILENO);  // oddity 4
        to_standard_error = false;
    }
}
