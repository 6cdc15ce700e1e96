// simulate - plays days of a data connection in seconds, drawn from seeds, and says what does not
// hold.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <new>
#include <string>

#include "control_world.h"
#include "data_world.h"
#include "main/gwa_log.h"
#include "network.h"
#include "runtime/gwa_util_time.h"
#include "shrink.h"
#include "step.h"

namespace {

constexpr int STATUS_BROKEN = 3;
constexpr unsigned SCHEDULE_LIMIT_S = 20;

// What a process that plays tells the one that waits for it, whatever its end.
struct report {
    uint64_t seed = 0;  // that it plays
    uint64_t schedules = 0;
    uint64_t steps = 0;
    uint64_t rounds = 0;
    char fault[512] = "";
};
report* shared;

double seconds_now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void time_replace() {
    gwa_time.now_us = [] { return the_time.now_us + the_time.set_us; };
    gwa_time.steady_us = [] { return the_time.now_us; };
    gwa_time.sleep_us = [](int64_t us) { the_time.sleep(us); };
    gwa_time.poll = [](pollfd* entries, nfds_t, int timeout_ms) {
        const int ready = entries->events == POLLOUT
                              ? the_network.connect_settle(entries->fd, timeout_ms)
                              : the_network.wait_readable(entries->fd, timeout_ms);
        entries->revents = static_cast<short>(ready > 0 ? entries->events : 0);
        return ready;
    };
    gwa_time.epoll_wait = [](int epfd, epoll_event* events, int count, int timeout_ms) {
        return the_network.table_wait(epfd, events, count, timeout_ms);
    };
}

void play(const schedule& steps) {
    alarm(SCHEDULE_LIMIT_S);  // ends a process that spins
    const auto over = [&](uint64_t rounds) {
        if (the_network.is_apart) {
            _exit(0);
        }
        shared->steps += steps.size();
        shared->rounds += rounds;
        shared->schedules++;
    };
    if (!steps.empty() && steps.front().what == op::CONTROL) {
        control_world world;
        world.play(steps);
        return over(world.rounds_run);
    }
    data_world world;
    for (const step& one : steps) {
        world.play(one);
    }
    world.finish();
    over(world.rounds_run);
}

// Runs `work` in a process of its own, which a fault ends. The fault, or "".
template <typename Work>
std::string apart(Work work, bool quiet) {
    shared->fault[0] = '\0';
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(nowhere, STDOUT_FILENO);  // where the daemon shows headers that are none
        if (quiet) {
            dup2(nowhere, STDERR_FILENO);
        }
        work();
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (status == 0) {
        return "";
    }
    if (shared->fault[0] != '\0') {
        return shared->fault;
    }
    return WIFSIGNALED(status)
               ? std::string("the process ends: ") + sigdescr_np(WTERMSIG(status))
               : "the process ends with status " + std::to_string(WEXITSTATUS(status));
}

std::string fault_of(const schedule& steps, bool quiet) {
    return apart([&] { play(steps); }, quiet);
}

// A fault without its numbers: those change while a schedule shrinks.
std::string kind(const std::string& fault) {
    return fault.substr(0, fault.find_first_of("0123456789"));
}

int tell(const schedule& steps, const std::string& fault, const std::string& origin) {
    printf("%s: %s\n", origin.c_str(), fault.c_str());
    const schedule fewer = shrunk(
        steps, [&](const schedule& tried) { return kind(fault_of(tried, true)) == kind(fault); });
    printf("shrunk from %zu steps to %zu: %s\n%s", steps.size(), fewer.size(),
           fault_of(fewer, false).c_str(), text_of(fewer).c_str());
    return 1;
}

int replay(const char* path) {
    std::ifstream file(path);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    schedule steps;
    std::string error;
    if (!file || !schedule_read(text, &steps, &error)) {
        fprintf(stderr, "simulate: %s: %s\n", path,
                error.empty() ? "cannot be read" : error.c_str());
        return 2;
    }
    const std::string fault = fault_of(steps, false);
    puts(fault.empty() ? "holds" : fault.c_str());
    return fault.empty() ? 0 : 1;
}

void print_counts(uint64_t first, double seconds) {
    printf(
        "from seed %llu: %llu schedules, %llu steps, %llu rounds in %.1f s, %.0f schedules a "
        "minute\n",
        static_cast<unsigned long long>(first), static_cast<unsigned long long>(shared->schedules),
        static_cast<unsigned long long>(shared->steps),
        static_cast<unsigned long long>(shared->rounds), seconds,
        static_cast<double>(shared->schedules) / seconds * 60);
}

int run(uint64_t seed, double seconds, uint64_t most) {
    const double start = seconds_now();
    shared->seed = seed;
    const std::string fault = apart(
        [&] {
            do {
                play(schedule_drawn(shared->seed));
                shared->seed++;
            } while (seconds_now() - start < seconds && shared->schedules < most);
        },
        false);
    print_counts(seed, seconds_now() - start);
    if (fault.empty()) {
        return 0;
    }
    const uint64_t failed = shared->seed;
    return tell(schedule_drawn(failed), fault, "seed " + std::to_string(failed));
}

void print_help() {
    puts("simulate [seconds] [--seed N] [--schedules N] [--print N] [--replay FILE]\n\nsteps:");
    for (size_t i = 0; i < OP_COUNT; i++) {
        const op_description& one = description(static_cast<op>(i));
        printf("  %-14s %s\n", std::string(one.name).c_str(), std::string(one.meaning).c_str());
    }
}

}  // namespace

void broken(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(shared->fault, sizeof shared->fault, format, arguments);
    va_end(arguments);
    _exit(STATUS_BROKEN);
}

int main(int argc, char** argv) {
    shared = new (mmap(nullptr, sizeof(report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                       -1, 0)) report{};
    gwa_log_level_set(GWA_LOG_OFF);
    time_replace();
    double seconds = 10;
    uint64_t most = UINT64_MAX;
    auto seed = static_cast<uint64_t>(time(nullptr));
    for (int i = 1; i < argc; i++) {
        const std::string_view word = argv[i];
        const char* const value = i + 1 < argc ? argv[i + 1] : "";
        if (word == "--help") {
            print_help();
            return 0;
        }
        if (word == "--replay") {
            return replay(value);
        }
        if (word == "--print") {
            fputs(text_of(schedule_drawn(strtoull(value, nullptr, 10))).c_str(), stdout);
            return 0;
        }
        if (word == "--seed" || word == "--schedules") {
            (word == "--seed" ? seed : most) = strtoull(value, nullptr, 10);
            i++;
        } else {
            seconds = strtod(argv[i], nullptr);
        }
    }
    return run(seed, seconds, most);
}
