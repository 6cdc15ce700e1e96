// gwlink: a line with delay, rate and losses between two network namespaces. Each of them gets a
// TUN device, and what one sends reaches the other as the line lets it.
#include <fcntl.h>
#include <getopt.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <sstream>

#include "line.h"

namespace {

constexpr size_t PACKET_MAX = 65536;
constexpr int BATCH = 64;  // packets that are read before the other direction has its turn

constexpr char USAGE[] =
    R"(usage: gwlink [--up SETTINGS] [--down SETTINGS] [--seed N] [--control FIFO] [--device NAME]
              NAMESPACE NAMESPACE

Makes a TUN device (line0) in each of two network namespaces, given as files like those in
/run/netns, and carries packets between them until it is told to end by SIGTERM or SIGINT. "up" is
from the first to the second. Standard output has "ready" when both devices are there, to be given
addresses, and a line of counts for each direction at the end.

SETTINGS is a text of words:
  rate=5M       bits in a second, with k, M or G; 0, the default: no limit
  delay=10ms    of one direction, with us, ms or s; default 0
  loss=0.5%     of all packets; default 0; 100% cuts the line
  queue=200ms   what may wait for the line, as time at its rate or in bytes (64k); default 1s
  max=1400      larger packets vanish without a word; default 65535
--seed N says which packets are lost: the same of each seed (default 1).

The FIFO, which has to be there, takes lines while gwlink runs: "up", "down" or "both" and the
settings that change, or "counts", which prints the counts as they are.
)";

struct direction {
    const char* name;
    line path;
    int from, to;
};

struct arguments {
    line_settings up, down;
    uint32_t seed = 1;
    const char* control = nullptr;
    const char* device = "line0";
    const char *first = nullptr, *second = nullptr;
};

volatile std::sig_atomic_t ended = 0;

[[noreturn]] void fail(const char* what, const char* which) {
    fprintf(stderr, "gwlink: %s %s: %s\n", what, which, strerror(errno));
    exit(EXIT_FAILURE);
}

[[noreturn]] void refuse(const std::string& what) {
    fprintf(stderr, "gwlink: %s\n%s", what.c_str(), USAGE);
    exit(2);
}

// --- the arguments ---

void read_settings(const char* text, line_settings& to) {
    const std::string wrong = line_settings_read(text, to);
    if (!wrong.empty()) {
        refuse(wrong);
    }
}

void read_seed(const char* text, uint32_t& to) {
    const char* const text_end = text + strlen(text);
    if (std::from_chars(text, text_end, to).ptr != text_end) {
        refuse(std::string("no seed: ") + text);
    }
}

arguments read_arguments(int count, char** values) {
    const option known[] = {{"up", required_argument, nullptr, 'u'},
                            {"down", required_argument, nullptr, 'd'},
                            {"seed", required_argument, nullptr, 's'},
                            {"control", required_argument, nullptr, 'c'},
                            {"device", required_argument, nullptr, 'n'},
                            {"help", no_argument, nullptr, 'h'},
                            {}};
    arguments read;
    for (int found; (found = getopt_long(count, values, "h", known, nullptr)) != -1;) {
        switch (found) {
            case 'u': read_settings(optarg, read.up); break;
            case 'd': read_settings(optarg, read.down); break;
            case 's': read_seed(optarg, read.seed); break;
            case 'c': read.control = optarg; break;
            case 'n': read.device = optarg; break;
            case 'h': fputs(USAGE, stdout); exit(EXIT_SUCCESS);
            default: refuse("see above");
        }
    }
    if (count - optind != 2) {
        refuse("two namespaces are needed");
    }
    read.first = values[optind];
    read.second = values[optind + 1];
    return read;
}

// --- the devices ---

// A device belongs to the namespace that its maker is in. We stay there: nothing else depends on
// it.
int tun_open(const char* name_space, const char* device) {
    const int place = open(name_space, O_RDONLY | O_CLOEXEC);
    if (place == -1 || setns(place, CLONE_NEWNET) == -1) {
        fail("namespace", name_space);
    }
    close(place);
    const int fd = open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC);
    ifreq request{};
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    snprintf(request.ifr_name, sizeof request.ifr_name, "%s", device);
    if (fd == -1 || ioctl(fd, TUNSETIFF, &request) == -1) {
        fail("TUN device", device);
    }
    return fd;
}

// --- what is told and asked while the line is there ---

nanoseconds now() { return std::chrono::steady_clock::now().time_since_epoch(); }

void show_counts(const direction& way) {
    const line_counts& counts = way.path.counts();
    printf("%s packets=%llu bytes=%llu lost=%llu refused=%llu too_large=%llu most_waiting=%lld\n",
           way.name, static_cast<unsigned long long>(counts.packets),
           static_cast<unsigned long long>(counts.bytes),
           static_cast<unsigned long long>(counts.lost),
           static_cast<unsigned long long>(counts.refused),
           static_cast<unsigned long long>(counts.too_large),
           static_cast<long long>(counts.most_waiting));
    fflush(stdout);
}

void obey(const std::string& order, direction (&ways)[2]) {
    std::istringstream words(order);
    std::string which, settings;
    words >> which;
    std::getline(words, settings);
    bool known = false;
    for (direction& way : ways) {
        if (which == "counts") {
            show_counts(way);
        } else if (which == way.name || which == "both") {
            line_settings changed = way.path.settings();
            const std::string wrong = line_settings_read(settings, changed);
            if (!wrong.empty()) {
                fprintf(stderr, "gwlink: %s\n", wrong.c_str());
            }
            way.path.set(changed, now());
        } else {
            continue;
        }
        known = true;
    }
    if (!known) {
        fprintf(stderr, "gwlink: no order: %s\n", order.c_str());
    }
}

// Open for writing too, so that it has no end when a writer leaves.
int control_open(const char* path) {
    const int fd = path == nullptr ? -1 : open(path, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (path != nullptr && fd == -1) {
        fail("FIFO", path);
    }
    return fd;
}

void control_read(int fd, std::string& pending, direction (&ways)[2]) {
    char buffer[4096];
    const ssize_t count = read(fd, buffer, sizeof buffer);
    pending.append(buffer, static_cast<size_t>(std::max<ssize_t>(count, 0)));
    for (size_t end; (end = pending.find('\n')) != std::string::npos; pending.erase(0, end + 1)) {
        obey(pending.substr(0, end), ways);
    }
}

// --- carrying ---

void read_packets(direction& way) {
    static uint8_t buffer[PACKET_MAX];
    for (int i = 0; i < BATCH; ++i) {
        const ssize_t size = read(way.from, buffer, sizeof buffer);
        if (size == -1 && (errno == EAGAIN || errno == EINTR)) {
            return;
        }
        if (size == -1) {
            fail("reading from the device of", way.name);
        }
        way.path.put(packet(buffer, buffer + size), now());
    }
}

// A device that is down takes nothing, as a cable that nobody has plugged in.
void write_packets(direction& way) {
    while (const std::optional<packet> arrived = way.path.take(now())) {
        if (write(way.to, arrived->data(), arrived->size()) == -1 && errno != EIO &&
            errno != EAGAIN && errno != ENOBUFS && errno != EINVAL) {
            fail("writing to the device of", way.name);
        }
    }
}

timespec time_until(nanoseconds then) {
    const nanoseconds left = std::max(then - now(), nanoseconds{0});
    const auto whole = std::chrono::duration_cast<std::chrono::seconds>(left);
    return {.tv_sec = whole.count(), .tv_nsec = (left - whole).count()};
}

// Waits for packets, orders, and the moment when the next packet arrives.
void wait(std::span<pollfd> ends, const direction (&ways)[2], const sigset_t& outside) {
    std::optional<nanoseconds> first;
    for (const direction& way : ways) {
        const std::optional<nanoseconds> next = way.path.next();
        if (next && (!first || *next < *first)) {
            first = next;
        }
    }
    const timespec limit = time_until(first.value_or(nanoseconds{0}));
    if (ppoll(ends.data(), ends.size(), first ? &limit : nullptr, &outside) == -1) {
        if (errno != EINTR) {
            fail("waiting for", "packets");
        }
        for (pollfd& end : ends) {
            end.revents = 0;
        }
    }
}

void carry(direction (&ways)[2], int control, const sigset_t& outside) {
    pollfd ends[] = {{.fd = ways[0].from, .events = POLLIN, .revents = 0},
                     {.fd = ways[1].from, .events = POLLIN, .revents = 0},
                     {.fd = control, .events = POLLIN, .revents = 0}};
    std::string orders;
    while (ended == 0) {
        wait(ends, ways, outside);
        for (size_t i = 0; i < std::size(ways); ++i) {
            if (ends[i].revents != 0) {
                read_packets(ways[i]);
            }
            write_packets(ways[i]);
        }
        if (ends[2].revents != 0) {
            control_read(control, orders, ways);
        }
    }
}

// The signals that end us arrive in the wait only. `outside` becomes what is let through there.
void catch_signals(sigset_t& outside) {
    struct sigaction action {};
    action.sa_handler = [](int) { ended = 1; };
    sigset_t ours;
    sigemptyset(&ours);
    for (const int signal : {SIGINT, SIGTERM}) {
        sigaction(signal, &action, nullptr);
        sigaddset(&ours, signal);
    }
    sigprocmask(SIG_BLOCK, &ours, &outside);
}

// A line is not late because the machine is busy: before everybody else, where that is allowed, and
// not up to 50 us after the time.
void be_in_time() {
    const sched_param urgent{.sched_priority = 1};
    sched_setscheduler(0, SCHED_RR, &urgent);
    prctl(PR_SET_TIMERSLACK, 1);  // ns
}

}  // namespace

int main(int count, char** values) {
    const arguments given = read_arguments(count, values);
    const int control = control_open(given.control);
    sigset_t outside;
    catch_signals(outside);
    const int first = tun_open(given.first, given.device);
    const int second = tun_open(given.second, given.device);
    direction ways[] = {{"up", line(given.up, given.seed), first, second},
                        {"down", line(given.down, given.seed + 1), second, first}};
    be_in_time();
    puts("ready");
    fflush(stdout);
    carry(ways, control, outside);
    for (const direction& way : ways) {
        show_counts(way);
    }
    return EXIT_SUCCESS;
}
