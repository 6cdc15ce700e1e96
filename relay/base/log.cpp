#include "base/log.h"

#include <sys/time.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace {

constexpr size_t TEXT_MAX = 160;
constexpr size_t LINE_MAX_BYTES = 1024;
log_level shown = EVENT;

// The time for a line's front; its length. The date is made anew once a second only: a log has
// lines by the thousand, and this would be half of what they cost.
size_t stamp(char* to) {
    static char date[32];
    static size_t size = 0;
    static time_t second = 0;
    timeval now{};
    gettimeofday(&now, nullptr);
    if (now.tv_sec != second) {
        second = now.tv_sec;
        tm local{};
        localtime_r(&second, &local);
        size = strftime(date, sizeof date, "%F %T", &local);
    }
    memcpy(to, date, size);
    return size + static_cast<size_t>(sprintf(to + size, ".%03ld ", now.tv_usec / 1000L));
}

}  // namespace

void log_set_level(log_level level) { shown = level; }

void log_line(log_level level, const char* format, ...) {
    if (level > shown) {
        return;
    }
    char line[LINE_MAX_BYTES];
    size_t size = stamp(line);
    va_list arguments;
    va_start(arguments, format);
    const int more = vsnprintf(line + size, sizeof line - size, format, arguments);
    va_end(arguments);
    size = std::min(size + static_cast<size_t>(std::max(more, 0)), sizeof line - 1);
    line[size++] = '\n';
    fwrite(line, 1, size, stderr);
}

std::string log_text(std::string_view text) {
    std::string safe;
    for (const char c : text.substr(0, TEXT_MAX)) {
        if (c >= ' ' && c <= '~') {
            safe += c;
        } else {
            char escaped[8];
            snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned char>(c));
            safe += escaped;
        }
    }
    return text.size() > TEXT_MAX ? safe + "..." : safe;
}
