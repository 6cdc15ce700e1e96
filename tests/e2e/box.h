// box.h - the daemon as a child process, with a home directory of its own.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "support/child.h"

constexpr char DEVICE_ID[] = "test-box";
constexpr char RESTART_LINE[] = "!!!! restart the process !!!!";

struct box {
    temp_dir home;
    std::unique_ptr<child> gwad;

    // Starts the daemon; it asks the address manager at localhost and this port.
    explicit box(uint16_t manager_port, const char* verbose = "7");

    std::string log() const { return file_read(home.path + "/log"); }
    // True as soon as the text has been logged that many times.
    bool logs(std::string_view text, int times = 1) const;
    // True when the daemon ends with status 0 after saying that it restarts. Its successor starts
    // two seconds later.
    bool restarts() const;
    pid_t pid() const;  // by the pid file: also of a successor
    int open_fds() const;
};

int text_count(std::string_view text, std::string_view part);
