#include "child.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

namespace {

void redirect(int descriptor, const std::string& path) {
    constexpr mode_t PRIVATE_FILE = 0600;
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, PRIVATE_FILE);
    dup2(fd, descriptor);
    close(fd);
}

}  // namespace

std::vector<char*> argument_list(std::vector<std::string>& texts) {
    std::vector<char*> list;
    for (std::string& text : texts) {
        list.push_back(text.data());
    }
    list.push_back(nullptr);
    return list;
}

child::child(const std::function<void()>& body) {
    fflush(nullptr);
    process = fork();
    if (process == 0) {
        setpgid(0, 0);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        redirect(STDIN_FILENO, "/dev/null");
        redirect(STDOUT_FILENO, files.path + "/out");
        redirect(STDERR_FILENO, files.path + "/err");
        body();
        fflush(stdout);
        _exit(RETURNED);
    }
    setpgid(process, process);
}

child::child(std::vector<std::string> arguments)
    : child([list = argument_list(arguments)] { execv(list[0], list.data()); }) {}

child::~child() {
    kill(-process, SIGKILL);
    if (running()) {
        waitpid(process, nullptr, 0);
    }
}

bool child::running() {
    int status = 0;
    if (!result && waitpid(process, &status, WNOHANG) == process) {
        result = WIFEXITED(status) ? WEXITSTATUS(status) : SIGNALLED + WTERMSIG(status);
    }
    return !result;
}

std::optional<int> child::wait(test_duration patience) {
    eventually([this] { return !running(); }, patience);
    return result;
}

std::optional<int> child::terminate(test_duration patience, int signal) {
    if (!result) {  // a pid that was waited for may belong to somebody else by now
        kill(process, signal);
    }
    return wait(patience);
}

std::string child::output() const { return file_read(files.path + "/out"); }

std::string child::errors() const { return file_read(files.path + "/err"); }
