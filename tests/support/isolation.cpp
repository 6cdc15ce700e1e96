#include "isolation.h"

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "sockets.h"

namespace {

constexpr int NAMESPACES = CLONE_NEWPID | CLONE_NEWNET | CLONE_NEWNS;
constexpr int KILLED = 1, NOT_ALLOWED = 125;  // exit statuses
bool in_namespaces = false;

// Root needs no user namespace; anybody else becomes root of one.
bool namespaces_enter() {
    if (unshare(NAMESPACES) == 0) {
        return true;
    }
    const std::string user = std::to_string(geteuid()), group = std::to_string(getegid());
    if (unshare(NAMESPACES | CLONE_NEWUSER) != 0) {
        return false;
    }
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << "0 " + user + " 1";
    std::ofstream("/proc/self/gid_map") << "0 " + group + " 1";
    return true;
}

bool loopback_up() {
    const unique_fd fd{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    ifreq request{};
    strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP;
    return ioctl(fd.get(), SIOCSIFFLAGS, &request) == 0;
}

bool mounts_made() {
    return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("proc", "/proc", "proc", 0, nullptr) == 0 &&
           mount("tmpfs", "/etc/init.d", "tmpfs", 0, nullptr) == 0;
}

}  // namespace

bool isolated() { return in_namespaces; }

// Runs `body` in a child that dies with us, and hands back its exit status. As the first process of
// a namespace we take in the orphans of the others, too.
template <typename Body>
static int forked(Body body) {
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        body();
    }
    int status = 0;
    for (pid_t ended = 0; ended != child;) {
        ended = waitpid(-1, &status, 0);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : KILLED;
}

int isolated_run(int (*tests)()) {
    // Tried in a child, so that a half-made world is left behind with it. The grandchild is the
    // first process of the new world, and its end ends all others in there. It does nothing else:
    // sanitizers cannot look for leaks in such a process.
    const int result = forked([tests] {
        _exit(!namespaces_enter() ? NOT_ALLOWED : forked([tests] {
            in_namespaces = mounts_made() && loopback_up();
            _exit(!in_namespaces ? NOT_ALLOWED : forked([tests] { exit(tests()); }));
        }));
    });
    if (result != NOT_ALLOWED) {
        return result;
    }
    fputs("this machine allows no private namespaces: tests that restart the daemon are skipped\n",
          stderr);
    return tests();
}
