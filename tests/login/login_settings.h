// login_settings.h - the settings of a box on the loopback interface, for as long as a test needs
// them.
#pragma once

#include <gtest/gtest.h>

#include "login/gwa_login.h"

constexpr uint32_t LOOPBACK = 0x7f000001;

struct login_settings {
    login_settings() {
        EXPECT_EQ(gwa_login_init("localhost", nullptr, nullptr, nullptr, "lo", "box-1"), 0);
    }
    login_settings(login_settings&&) = delete;
    ~login_settings() { gwa_login_exit(); }
};

// What such a box reports; a box without a firmware file has "0" for what would be in it.
constexpr char BOX_REPORT[] =
    R"({"deviceid":"box-1","mac":"00:00:00:00:00:00","ip":"127.0.0.1","fwver":"0",)"
    R"("prover":"0","component":"0","terminal":"0"})";
