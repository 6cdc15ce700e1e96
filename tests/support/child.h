// child.h - a program that runs beside the test and cannot outlive it.
//
// Standard output and standard error go to files of the child's own, so that a talkative program
// never blocks on a full pipe. Standard input is /dev/null.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "files.h"
#include "sockets.h"

class child {
   public:
    // The first argument is the program's path. Extra variables are given as "NAME=value".
    explicit child(std::vector<std::string> arguments, std::vector<std::string> environment = {});
    child(child&&) = delete;
    ~child();  // kills what still runs, and waits for it

    pid_t pid() const { return process; }
    bool running();
    void signal(int number) const;
    // The exit status, or 128 + the signal that ended it; nothing when it still runs after that.
    std::optional<int> wait(test_duration patience = TEST_PATIENCE);
    // SIGTERM, then wait.
    std::optional<int> terminate(test_duration patience = TEST_PATIENCE);

    std::string output() const;  // standard output so far
    std::string errors() const;  // standard error so far
    // True as soon as the text shows up; false at the deadline or when the program ended without.
    bool output_contains(std::string_view text, test_duration patience = TEST_PATIENCE);
    bool errors_contain(std::string_view text, test_duration patience = TEST_PATIENCE);

   private:
    bool shows(const std::string& path, std::string_view text, test_duration patience);

    temp_dir files;
    pid_t process = -1;
    std::optional<int> result;
};
