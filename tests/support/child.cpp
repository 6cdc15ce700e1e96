#include "child.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>
#include <thread>

namespace {

using steady = std::chrono::steady_clock;
constexpr test_duration CHECK_EVERY{2};
constexpr int SIGNAL_BASE = 128;  // as a shell reports an ending by signal
constexpr mode_t PRIVATE_FILE = 0600;

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> list;
    for (std::string& text : texts) {
        list.push_back(text.data());
    }
    list.push_back(nullptr);
    return list;
}

}  // namespace

child::child(std::vector<std::string> arguments, std::vector<std::string> environment) {
    for (char** entry = environ; *entry != nullptr; ++entry) {
        environment.emplace_back(*entry);  // after the extra ones: getenv takes the first it finds
    }
    const std::string out = files.path + "/out";
    const std::string err = files.path + "/err";
    constexpr int WRITE_NEW = O_WRONLY | O_CREAT | O_APPEND;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out.c_str(), WRITE_NEW, PRIVATE_FILE);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err.c_str(), WRITE_NEW, PRIVATE_FILE);
    const int failed = posix_spawn(&process, arguments.at(0).c_str(), &actions, nullptr,
                                   pointers(arguments).data(), pointers(environment).data());
    posix_spawn_file_actions_destroy(&actions);
    if (failed != 0) {
        throw std::runtime_error("cannot start " + arguments[0]);
    }
}

child::~child() {
    if (running()) {
        signal(SIGKILL);
        waitpid(process, nullptr, 0);
    }
}

bool child::running() {
    int status = 0;
    if (!result && waitpid(process, &status, WNOHANG) == process) {
        result = WIFEXITED(status) ? WEXITSTATUS(status) : SIGNAL_BASE + WTERMSIG(status);
    }
    return !result;
}

void child::signal(int number) const {
    if (!result) {  // a pid that was waited for may belong to somebody else by now
        kill(process, number);
    }
}

std::optional<int> child::wait(test_duration patience) {
    const auto deadline = steady::now() + patience;
    while (running() && steady::now() < deadline) {
        std::this_thread::sleep_for(CHECK_EVERY);
    }
    return result;
}

std::optional<int> child::terminate(test_duration patience) {
    signal(SIGTERM);
    return wait(patience);
}

std::string child::output() const { return file_read(files.path + "/out"); }

std::string child::errors() const { return file_read(files.path + "/err"); }

bool child::output_contains(std::string_view text, test_duration patience) {
    return shows(files.path + "/out", text, patience);
}

bool child::errors_contain(std::string_view text, test_duration patience) {
    return shows(files.path + "/err", text, patience);
}

bool child::shows(const std::string& path, std::string_view text, test_duration patience) {
    const auto deadline = steady::now() + patience;
    for (;;) {
        const bool last_look = !running() || steady::now() >= deadline;
        if (file_read(path).find(text) != std::string::npos) {
            return true;
        }
        if (last_look) {
            return false;
        }
        std::this_thread::sleep_for(CHECK_EVERY);
    }
}
