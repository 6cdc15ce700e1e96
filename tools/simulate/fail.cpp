#include "fail.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "network.h"

// True in the copy. False here, once that has ended as it should.
static bool copy_made() {
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        the_network.is_apart = true;
        return true;
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFSIGNALED(status)) {
        raise(WTERMSIG(status));
    }
    if (status != 0) {
        _exit(WEXITSTATUS(status));
    }
    return false;
}

void fail_play(const step& one) {
    const auto what = static_cast<call>(static_cast<size_t>(one.with[0]) % CALL_COUNT);
    const bool ends_daemon =
        what == call::MALLOC || (what == call::SOCKET && one.with[1] == EMFILE);
    if (!ends_daemon || the_network.is_apart || copy_made()) {
        the_network.fail(one.with[0], one.with[1], one.with[2]);
    }
}
