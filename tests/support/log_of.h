// log_of.h - what a call logs, while the log goes to standard error.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "main/gwa_log.h"

template <typename Call>
std::string log_of(Call call) {
    testing::internal::CaptureStderr();
    call();
    return testing::internal::GetCapturedStderr();
}

// The lines that a call logs up to that level, each from its own level on: "<3> bind failed".
template <typename Call>
std::vector<std::string> log_lines_of(int level, Call call) {
    gwa_log_level_set(level);
    const std::string log = log_of(call);
    gwa_log_level_set(GWA_LOG_OFF);
    std::vector<std::string> lines;
    for (size_t at = 0, end = 0; (end = log.find('\n', at)) != std::string::npos; at = end + 1) {
        const std::string line = log.substr(at, end - at);
        const size_t place = line.find("() <");
        lines.push_back(line.substr(place == std::string::npos ? 0 : place + 3));
    }
    return lines;
}
