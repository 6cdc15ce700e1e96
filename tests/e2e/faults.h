// faults.h - a daemon to which something happens, and how it is afterwards: up again, with all
// bytes right, and with nothing left over. Silent links, which take minutes, are measured by
// scripts/reliability.
#pragma once

#include <algorithm>
#include <atomic>
#include <fstream>
#include <span>
#include <sstream>

#include "peer.h"

constexpr test_duration FAULT_PATIENCE{30000};  // a failed login is repeated after ten seconds
constexpr size_t MUCH = 300000;
constexpr char NOWHERE[] = "nowhere.invalid";

struct usage {
    size_t descriptors = 0, threads = 0;
    bool operator==(const usage&) const = default;
    // Nothing is left over. One descriptor may be missing: daemons in one namespace take the
    // announcements' fixed path from each other, and a bind may lose that race.
    bool is_like(const usage& healthy) const {
        return threads == healthy.threads && descriptors <= healthy.descriptors &&
               descriptors + 1 >= healthy.descriptors;
    }
};

inline std::ostream& operator<<(std::ostream& out, const usage& each) {
    return out << each.descriptors << " descriptors, " << each.threads << " threads";
}

// Of the descriptors those that are the daemon's own: it may have inherited some of this process.
inline usage usage_of(const box& device) {
    usage found;
    std::error_code gone;
    const std::string process = "/proc/" + std::to_string(device.pid());
    for (const auto& entry : std::filesystem::directory_iterator(process + "/fd", gone)) {
        const std::string what = std::filesystem::read_symlink(entry, gone).string();
        found.descriptors += what.starts_with("socket:") || what.starts_with("anon_inode:") ||
                             what.starts_with(device.home.path);
    }
    const std::filesystem::directory_iterator first(process + "/task", gone), last;
    found.threads = static_cast<size_t>(std::distance(first, last));
    return found;
}

// Hundredths of a second of the processor.
inline long processor_time(pid_t pid) {
    const std::string stat = file_read("/proc/" + std::to_string(pid) + "/stat");
    std::istringstream fields(stat.substr(std::min(stat.rfind(')'), stat.size())));
    std::string skipped;
    long user = 0, system = 0;
    for (int field = 2; field < 14; ++field) {
        fields >> skipped;
    }
    fields >> user >> system;
    return user + system;
}

// Only the first data connection is made; the others wait for a name that nobody knows.
inline std::string order_of_one(const std::string& host, uint16_t port) {
    return frame_bytes(DATA_ORDER, 0,
                       R"(host1 ")" + host + R"(" port1port2port3port4port5 ")" +
                           std::to_string(port) + R"(" host2host3host4host5 ")" + NOWHERE + '"');
}

// A name of its own for each who asks, as /etc/hosts is everybody's.
inline std::string new_name() {
    static std::atomic<int> count = 0;
    return "name" + std::to_string(++count) + ".test";
}

inline void name_resolves(const std::string& name) {
    std::ofstream("/etc/hosts", std::ios::app) << "127.0.0.1 " + name + "\n" << std::flush;
}

inline void reset_when_closed(int fd) {
    const linger at_once{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
}

inline void reset(unique_fd& fd) {
    reset_when_closed(fd.get());
    fd.reset();
}

inline bool write_bytewise(int fd, const std::string& bytes) {
    return std::ranges::all_of(bytes, [fd](char byte) {
        std::this_thread::sleep_for(test_duration{1});
        return write_all(fd, {&byte, 1});
    });
}

// One daemon, its server, and a service that answers with a pattern.
struct scene : session {
    local_service service{[](int fd) {
        read_until(fd, "\r\n\r\n");
        write_all(fd, noise(MUCH, 7));
    }};
    uint32_t stream = 0;
    pid_t first_pid = 0;
    std::string host;  // of the address manager

    explicit scene(std::string name = "localhost", const std::vector<std::string>& settings = {})
        : session("7", name.c_str(), settings), host(std::move(name)) {
        device.logs("gwad start");
        first_pid = device.pid();
    }
    // Up to the login on the control connection, whenever that comes.
    bool control_comes() {
        control = control_server.accept(FAULT_PATIENCE);
        const int at_once = 1;
        setsockopt(control.get(), IPPROTO_TCP, TCP_NODELAY, &at_once, sizeof at_once);
        return !frame_read(control.get()).empty();
    }
    bool answers_control() {
        return sends(frame_bytes(LOGIN_ANSWER)) && hears(frame_bytes(SESSION_ID)) &&
               hears(heartbeat_frame(0)) && sends(heartbeat_frame(0));
    }
    bool discovery() {
        const unique_fd fd = manager.accept(FAULT_PATIENCE);
        read_until(fd.get(), "\r\n\r\n");
        return write_all(fd.get(), good_reply());
    }
    std::string good_reply() const {
        return "HTTP/1.1 200 OK\r\n\r\n{\"ret\":0,\"proxy\":\"127.0.0.1:" +
               std::to_string(control_server.port) + "\"}";
    }
    bool orders() { return sends(order_of_one("127.0.0.1", data_server.port)); }
    bool data_comes() {
        data = data_server.accept(FAULT_PATIENCE);
        const int at_once = 1;
        setsockopt(data.get(), IPPROTO_TCP, TCP_NODELAY, &at_once, sizeof at_once);
        return !frame_read(data.get()).empty();
    }
    bool answers_data() const { return sends_data(frame_bytes(LOGIN_ANSWER)); }
    bool logs_in() { return discovery() && control_comes() && answers_control(); }
    bool comes_up() { return logs_in() && orders() && data_comes() && answers_data(); }
    // The whole pattern over a new stream, whatever else comes.
    bool carries() {
        return sends_data(request_frame(++stream, service.port())) && receives(stream) &&
               sends_data(frame_bytes(CLOSE_STREAM, stream));
    }
    bool receives(uint32_t of) const {
        std::string bytes, frame;
        while (bytes.size() < MUCH && !(frame = frame_read(data.get())).empty()) {
            bytes += frame_stream(frame) == of ? frame_payload(frame) : "";
        }
        return bytes == noise(MUCH, 7);
    }
    bool is_new() const { return device.pid() != first_pid; }
};

// A daemon is well when it carries bytes, holds what one holds that nothing has happened to, and
// has nothing to do.
inline void expect_well(scene& at, usage healthy) {
    constexpr test_duration A_WHILE{600};
    constexpr double LITTLE = under_sanitizer ? 0.2 : 0.1;  // who spins uses all that he can get
    EXPECT_TRUE(at.carries());
    usage now;
    EXPECT_TRUE(eventually([&] { return (now = usage_of(at.device)).is_like(healthy); }))
        << now << ", not " << healthy;
    const long before = processor_time(at.device.pid());
    const auto start = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(A_WHILE);
    const auto used = static_cast<double>(processor_time(at.device.pid()) - before) / 100;
    const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - start;
    EXPECT_LE(used, LITTLE * passed.count());
}

// What a daemon holds that nothing has happened to.
inline usage healthy_usage() {
    scene at;
    EXPECT_TRUE(at.comes_up() && at.carries());
    usage found;
    EXPECT_TRUE(eventually([&] {  // the worker closes the service's socket a moment later
        const usage before = std::exchange(found, usage_of(at.device));
        std::this_thread::sleep_for(test_duration{100});
        return before == found;
    }));
    return found;
}

// Something that happens to a daemon in a state, and what it comes back by.
struct fault {
    const char* name;
    bool (*leads_there)(scene& at);
    bool (*happens)(scene& at);
    bool (*is_over)(scene& at);
    bool new_process = false, knows_manager = true;
};

inline void expect_well_after(std::span<const fault> faults) {
    const usage healthy = healthy_usage();
    std::vector<std::thread> threads;
    for (const fault& each : faults) {
        threads.emplace_back([&each, healthy] {
            SCOPED_TRACE(each.name);
            const std::string host = new_name();
            if (each.knows_manager) {
                name_resolves(host);
            }
            scene at(host);
            EXPECT_TRUE(each.leads_there(at) && each.happens(at) && each.is_over(at));
            EXPECT_EQ(at.is_new(), each.new_process);
            expect_well(at, healthy);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

struct Faults : testing::Test {
    void SetUp() override {
        if (!isolated()) {
            GTEST_SKIP() << "needs private namespaces";
        }
    }
};
