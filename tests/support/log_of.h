// log_of.h - what a call logs, while the log goes to standard error.
#pragma once

#include <gtest/gtest.h>

#include <string>

template <typename Call>
std::string log_of(Call call) {
    testing::internal::CaptureStderr();
    call();
    return testing::internal::GetCapturedStderr();
}
