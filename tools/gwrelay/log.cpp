#include "log.h"

#include <sys/time.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>

namespace {

constexpr size_t TEXT_MAX = 160;
constexpr size_t LINE_MAX_BYTES = 1024;
log_level shown = EVENT;

}  // namespace

void log_set_level(log_level level) { shown = level; }

void log_line(log_level level, const char* format, ...) {
    if (level > shown) {
        return;
    }
    timeval now{};
    gettimeofday(&now, nullptr);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char stamp[32];
    strftime(stamp, sizeof stamp, "%F %T", &local);
    char line[LINE_MAX_BYTES];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    fprintf(stderr, "%s.%03ld %s\n", stamp, static_cast<long>(now.tv_usec / 1000), line);
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
