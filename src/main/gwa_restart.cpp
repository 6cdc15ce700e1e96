#include "main/gwa_restart.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <ctime>

#include "gwad_config.h"
#include "main/gwa_log.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_util_file.h"
#include "runtime/gwa_util_thread.h"
#include "runtime/gwa_util_time.h"

namespace {

constexpr char OWN_PROGRAM[] = "/proc/self/exe";
constexpr time_t PAUSE_S = 2;  // the box gets this long to settle before the next start

// Written once at start-up, read only by the child of the fork.
char program[PATH_MAX] = "";
char* const* program_arguments = nullptr;

std::atomic<int32_t> restarting{0};

}  // namespace

void gwa_restart_init(char* const* argv) {
    // The path, not the link: after an update the new program is the one to run. Where there is no
    // such link, there is none to run either.
    [[maybe_unused]] const ssize_t length = readlink(OWN_PROGRAM, program, sizeof program - 1);
    program_arguments = argv;
}

// The handlers of this program and the mask of whichever thread forked mean nothing to the next
// program, but what is ignored or blocked would be inherited by it.
static void signals_reset() {
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    for (const int number : {SIGPIPE, SIGINT, SIGTERM}) {
        sigaction(number, &action, nullptr);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

// Other threads may have held any lock at the fork, so from here to the execution there are only
// calls that are safe in a signal handler. Nothing can be logged: every descriptor is closed.
[[noreturn]] static void restart_child() {
    signals_reset();
    gwa_close_all_fds();
    timespec left{PAUSE_S, 0};
    while (nanosleep(&left, &left) == -1 && errno == EINTR) {
    }
    execl(GWAD_INIT_SCRIPT, "gwadsh", "start", static_cast<char*>(nullptr));
    // Exception 65: no init script, as on a developer's machine: a relay client that comes back by
    // itself is better than one that stays down.
    if (program_arguments != nullptr) {
        execv(program, program_arguments);
    }
    _exit(1);
}

// A signal that meets the fork waits, and ends the child (exception 55): taken by the old program's
// handler, it would only clear a flag that the next program does not have.
static pid_t restart_fork() {
    const gwa_signals_held held;
    const pid_t child = fork();
    if (child == 0) {
        restart_child();
    }
    return child;
}

void gwa_restart() {
    if (restarting.exchange(1, std::memory_order_relaxed) != 0) {
        while (gwa_process_running()) {
            gwa_sleep(1);  // another thread is at it and takes the whole process with it
        }
        return;
    }
    GWA_LOG(FATAL, " !!!! restart the process !!!!");
    if (!gwa_process_running()) {
        return;  // a signal has come since the caller looked, and whoever sent it wants an end
    }
    const pid_t child = restart_fork();
    if (child < 0) {
        GWA_LOG(FATAL, "fork failed");
        GWA_EXIT(1);
    }
    GWA_EXIT_LOG();
    if (!gwa_process_running()) {
        // Exception 55: a signal has come since we looked. The child still sleeps, and is taken
        // back.
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        return;
    }
    gwa_process_exit(0);
}
