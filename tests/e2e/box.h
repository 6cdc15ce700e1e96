// box.h - the daemon as a child process, with a home directory of its own.
#pragma once

#include <filesystem>

#include "support/child.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool under_sanitizer = true;
#else
constexpr bool under_sanitizer = false;
#endif
// An orderly end: two or three seconds, and what a loaded machine needs.
constexpr test_duration SOON{under_sanitizer ? 20000 : 5000};

bool isolated();  // on a machine of its own, so that whatever it leaves running ends with it

struct box {
    temp_dir home;
    child gwad;

    // Starts the daemon; it asks the address manager at that host and this port. The settings are
    // variables of its environment.
    explicit box(uint16_t manager_port, const char* verbose = "7",
                 const char* manager = "localhost", const std::vector<std::string>& settings = {})
        : gwad(command_line(home.path, manager_port, verbose, manager, settings)) {}

    std::string log() const { return file_read(home.path + "/log"); }
    // True as soon as the text has been logged that many times.
    bool logs(std::string_view text, int times = 1) const {
        return eventually([&] { return text_count(log(), text) >= times; });
    }
    // True when the daemon ends with status 0 after saying that it restarts. Its successor starts
    // two seconds later.
    bool restarts() {
        return gwad.wait() == 0 && text_count(log(), "!!!! restart the process !!!!") == 1;
    }
    pid_t pid() const {  // by its file: also of a successor
        return atoi(file_read(home.path + "/tmp/gwad.pid").c_str());
    }

   private:
    static std::vector<std::string> command_line(const std::string& home, uint16_t manager_port,
                                                 const char* verbose, const char* manager,
                                                 const std::vector<std::string>& settings) {
        for (const char* folder : {"/tmp/wkr", "/etc", "/bin"}) {
            std::filesystem::create_directories(home + folder);
        }
        file_write(home + "/etc/firmware", "CURVER=1.2.3\r\nCOMPONENT=c7\nTERMINAL=t9\n");
        // A name that cannot be resolved costs a second at most, also where nothing is isolated.
        std::vector<std::string> all{"/usr/bin/env", "RES_OPTIONS=timeout:1 attempts:1"};
        all.insert(all.end(), settings.begin(), settings.end());
        const std::vector<std::string> command = {
            GWAD_PATH, "-r", manager,       "-p",  std::to_string(manager_port),
            "-i",      "lo", "-I",          "box", "-H",
            home,      "-l", home + "/log", "-V",  verbose};
        all.insert(all.end(), command.begin(), command.end());
        return all;
    }
};
