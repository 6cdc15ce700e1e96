// forked.h - runs code that ends its process, or changes what is process-wide, in a child of the
// test. The child cannot outlive its patience, and what it started itself (its process group) goes
// with it.
#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include "support/files.h"

constexpr int FORKED_RETURNED = 42;  // the status of a body that came to its end
constexpr int FORKED_SIGNALLED = 128;

// Calls `entry` the way a program is called.
template <typename Entry>
void call_with(Entry entry, std::vector<std::string> arguments) {
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    entry(static_cast<int>(arguments.size()), argv.data());
}

class forked {
   public:
    pid_t pid;

    template <typename Body>
    explicit forked(Body body) {
        constexpr unsigned PATIENCE_S = 30;
        fflush(nullptr);
        pid = fork();
        if (pid == 0) {
            setpgid(0, 0);
            alarm(PATIENCE_S);
            redirect("/out", STDOUT_FILENO);
            redirect("/err", STDERR_FILENO);
            body();
            fflush(stdout);
            _exit(FORKED_RETURNED);
        }
        setpgid(pid, pid);
    }
    forked(forked&&) = delete;
    ~forked() { wait(); }

    // The exit status, or 128 + the signal.
    int wait() {
        int status = 0;
        if (result == -1 && waitpid(pid, &status, 0) == pid) {
            kill(-pid, SIGKILL);
            result = WIFEXITED(status) ? WEXITSTATUS(status) : FORKED_SIGNALLED + WTERMSIG(status);
        }
        return result;
    }
    std::string output() const { return file_read(files.path + "/out"); }
    std::string errors() const { return file_read(files.path + "/err"); }

   private:
    void redirect(const char* name, int to) const {
        const int fd = open((files.path + name).c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        dup2(fd, to);
        close(fd);
    }

    temp_dir files;
    int result = -1;
};
