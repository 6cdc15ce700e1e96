#include "log.h"

#include <sys/time.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>

namespace {

constexpr size_t TEXT_MAX = 160;
constexpr size_t LINE_MAX_BYTES = 1024;
log_level shown = log_level::EVENTS;

void write_line(log_level level, const char* format, va_list arguments) {
    if (!log_shows(level)) {
        return;
    }
    timeval now{};
    gettimeofday(&now, nullptr);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char stamp[32];
    strftime(stamp, sizeof stamp, "%F %T", &local);
    char line[LINE_MAX_BYTES];
    vsnprintf(line, sizeof line, format, arguments);
    fprintf(stderr, "%s.%03ld %s\n", stamp, static_cast<long>(now.tv_usec / 1000), line);
}

}  // namespace

void log_set_level(log_level level) { shown = level; }

bool log_shows(log_level level) { return level <= shown; }

void log_problem(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    write_line(log_level::PROBLEMS, format, arguments);
    va_end(arguments);
}

void log_event(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    write_line(log_level::EVENTS, format, arguments);
    va_end(arguments);
}

void log_frame(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    write_line(log_level::FRAMES, format, arguments);
    va_end(arguments);
}

std::string log_text(std::string_view text) {
    std::string shown_text;
    for (const char c : text.substr(0, TEXT_MAX)) {
        if (c >= ' ' && c <= '~') {
            shown_text += c;
        } else {
            char escaped[8];
            snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned char>(c));
            shown_text += escaped;
        }
    }
    return text.size() > TEXT_MAX ? shown_text + "..." : shown_text;
}
