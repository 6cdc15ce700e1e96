// child.h - a program, or a piece of the test, that runs beside the test and cannot outlive it.
//
// Standard output and standard error go to files of the child's own, so that a talkative program
// never blocks on a full pipe. What the child starts itself (its process group) goes with it.
#pragma once

#include <sys/types.h>

#include <csignal>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "eventually.h"
#include "files.h"

class child {
   public:
    static constexpr int RETURNED = 42;    // the status of a body that came to its end
    static constexpr int SIGNALLED = 128;  // and the number of the signal

    // Runs the body in a copy of this process.
    explicit child(const std::function<void()>& body);
    // Runs a program; the first argument is its path.
    explicit child(std::vector<std::string> arguments);
    child(child&&) = delete;
    ~child();  // kills what still runs, and waits for it

    pid_t pid() const { return process; }
    bool running();
    // The exit status, or SIGNALLED + the signal; nothing when it still runs after that.
    std::optional<int> wait(test_duration patience = TEST_PATIENCE);
    // The signal, then wait.
    std::optional<int> terminate(test_duration patience = TEST_PATIENCE, int signal = SIGTERM);

    std::string output() const;  // standard output so far
    std::string errors() const;  // standard error so far

   private:
    temp_dir files;
    pid_t process = -1;
    std::optional<int> result;
};

// The arguments as a program gets them; they point into the texts.
std::vector<char*> argument_list(std::vector<std::string>& texts);
