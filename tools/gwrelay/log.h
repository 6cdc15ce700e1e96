// log.h - one line an event on standard error, with the local time in front.
//
// Text that a device or a user chose goes through log_text first: a log line stays one line.
#pragma once

#include <string>
#include <string_view>

enum class log_level { PROBLEMS, EVENTS, FRAMES };

void log_set_level(log_level level);
bool log_shows(log_level level);

[[gnu::format(printf, 1, 2)]] void log_problem(const char* format,
                                               ...);                    // refused, failed, dropped
[[gnu::format(printf, 1, 2)]] void log_event(const char* format, ...);  // logins, orders, streams
[[gnu::format(printf, 1, 2)]] void log_frame(const char* format, ...);  // every frame header

// The text with everything but printable ASCII as \xNN, cut to a length that fits a line.
std::string log_text(std::string_view text);
