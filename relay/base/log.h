// log.h - one line an event on standard error, with the local time in front.
//
// Text that a device or a user chose goes through log_text first: a log line stays one line.
#pragma once

#include <string>
#include <string_view>

enum class log_level {
    PROBLEM,  // refused, failed, dropped
    EVENT,    // logins, orders, streams
    FRAME     // every frame header
};
using enum log_level;

void log_set_level(log_level level);
[[gnu::format(printf, 2, 3)]] void log_line(log_level level, const char* format, ...);

// The text with everything but printable ASCII as \xNN, cut to a length that fits a line.
std::string log_text(std::string_view text);
