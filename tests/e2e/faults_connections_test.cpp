// What may go wrong around a daemon, and how it is afterwards: up again, with all bytes right, and
// with nothing left over. Silent links, which take minutes, are measured by scripts/reliability.
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <span>
#include <sstream>

#include "peer.h"
#include "support/relay_program.h"

namespace {

constexpr test_duration PATIENCE{30000};  // a failed login is repeated after ten seconds
constexpr size_t MUCH = 300000;
constexpr char NOWHERE[] = "nowhere.invalid";

struct usage {
    size_t descriptors = 0, threads = 0;
    auto operator<=>(const usage&) const = default;
};

// Of the descriptors those that are the daemon's own: it may have inherited some of this process.
usage usage_of(const box& device) {
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
long processor_time(pid_t pid) {
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
std::string order_of_one(const std::string& host, uint16_t port) {
    return frame_bytes(DATA_ORDER, 0,
                       R"(host1 ")" + host + R"(" port1port2port3port4port5 ")" +
                           std::to_string(port) + R"(" host2host3host4host5 ")" + NOWHERE + '"');
}

// A name of its own for each who asks, as /etc/hosts is everybody's.
std::string new_name() {
    static std::atomic<int> count = 0;
    return "name" + std::to_string(++count) + ".test";
}

void name_resolves(const std::string& name) {
    std::ofstream("/etc/hosts", std::ios::app) << "127.0.0.1 " + name + "\n" << std::flush;
}

void reset_when_closed(int fd) {
    const linger at_once{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
}

void reset(unique_fd& fd) {
    reset_when_closed(fd.get());
    fd.reset();
}

bool write_bytewise(int fd, const std::string& bytes) {
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
        control = control_server.accept(PATIENCE);
        const int at_once = 1;
        setsockopt(control.get(), IPPROTO_TCP, TCP_NODELAY, &at_once, sizeof at_once);
        return !frame_read(control.get()).empty();
    }
    bool answers_control() {
        return sends(frame_bytes(LOGIN_ANSWER)) && hears(frame_bytes(SESSION_ID)) &&
               hears(heartbeat_frame(0)) && sends(heartbeat_frame(0));
    }
    bool discovery() {
        const unique_fd fd = manager.accept(PATIENCE);
        read_until(fd.get(), "\r\n\r\n");
        return write_all(fd.get(), good_reply());
    }
    std::string good_reply() const {
        return "HTTP/1.1 200 OK\r\n\r\n{\"ret\":0,\"proxy\":\"127.0.0.1:" +
               std::to_string(control_server.port) + "\"}";
    }
    bool orders() { return sends(order_of_one("127.0.0.1", data_server.port)); }
    bool data_comes() {
        data = data_server.accept(PATIENCE);
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
void expect_well(scene& at, usage healthy) {
    constexpr test_duration A_WHILE{600};
    constexpr long LITTLE = 6;
    EXPECT_TRUE(at.carries());
    usage now;
    EXPECT_TRUE(eventually([&] { return (now = usage_of(at.device)) == healthy; }))
        << now.descriptors << " descriptors, " << now.threads << " threads";
    const long before = processor_time(at.device.pid());
    std::this_thread::sleep_for(A_WHILE);
    EXPECT_LE(processor_time(at.device.pid()) - before, LITTLE);
}

// What a daemon holds that nothing has happened to.
usage healthy_usage() {
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

struct fault {
    const char* name;
    bool (*happens)(scene& at);  // up to the moment when it is up again; false: it is not
    bool new_process = false, knows_manager = true;
};

void expect_well_after(std::span<const fault> faults) {
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
            EXPECT_TRUE(each.happens(at));
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

}  // namespace

TEST_F(Faults, OfTheControlConnectionEndInANewProcessOrLogin) {
    constexpr fault FAULTS[] = {
        {"reset", [](scene& at) { return at.comes_up() && (reset(at.control), at.comes_up()); },
         true},
        {"end", [](scene& at) { return at.comes_up() && (at.control.reset(), at.comes_up()); },
         true},
        {"half an end",
         [](scene& at) {
             return at.comes_up() && shutdown(at.control.get(), SHUT_WR) == 0 && at.comes_up();
         },
         true},
        {"end behind the answer to the login",
         [](scene& at) {
             return at.discovery() && at.control_comes() && at.sends(frame_bytes(LOGIN_ANSWER)) &&
                    (at.control.reset(), at.comes_up());
         },
         true},
        {"end in a payload",
         [](scene& at) {
             return at.comes_up() && at.sends(frame_bytes(PRIVACY, 0, "private").substr(0, 20)) &&
                    (at.control.reset(), at.comes_up());
         },
         true},
        {"end in place of an answer",
         [](scene& at) {
             return at.discovery() && at.control_comes() && (at.control.reset(), at.comes_up());
         }},
        {"end in the answer",
         [](scene& at) {
             return at.discovery() && at.control_comes() &&
                    at.sends(frame_bytes(LOGIN_ANSWER).substr(0, 7)) &&
                    (at.control.reset(), at.comes_up());
         }},
        {"one byte at a time",
         [](scene& at) {
             return at.discovery() && at.control_comes() &&
                    write_bytewise(at.control.get(), frame_bytes(LOGIN_ANSWER)) &&
                    at.hears(frame_bytes(SESSION_ID)) && at.hears(heartbeat_frame(0)) &&
                    write_bytewise(
                        at.control.get(),
                        heartbeat_frame(0) + order_of_one("127.0.0.1", at.data_server.port)) &&
                    at.data_comes() && at.answers_data();
         }},
        {"a late answer to a heartbeat",
         [](scene& at) {
             const bool asked = at.discovery() && at.control_comes() &&
                                at.sends(frame_bytes(LOGIN_ANSWER)) &&
                                at.hears(frame_bytes(SESSION_ID)) && at.hears(heartbeat_frame(0));
             std::this_thread::sleep_for(test_duration{3000});
             return asked && at.sends(heartbeat_frame(0)) && at.orders() && at.data_comes() &&
                    at.answers_data();
         }},
        {"the name of the address manager is unknown for a while",
         [](scene& at) {
             const bool unknown = at.device.logs("Can not resolve the domain " + at.host);
             name_resolves(at.host);
             return unknown && at.comes_up();
         },
         false, false},
    };
    expect_well_after(FAULTS);
}

TEST_F(Faults, OfADataConnectionEndInANewLogin) {
    constexpr fault FAULTS[] = {
        {"reset in mid-download",
         [](scene& at) {
             return at.comes_up() && at.sends_data(request_frame(9, at.service.port())) &&
                    !frame_read(at.data.get()).empty() &&
                    (reset(at.data), at.data_comes() && at.answers_data());
         }},
        {"reset in a payload",
         [](scene& at) {
             return at.comes_up() && at.sends_data(request_frame(9, 1).substr(0, 30)) &&
                    (reset(at.data), at.data_comes() && at.answers_data());
         }},
        {"end right behind a request",
         [](scene& at) {
             return at.comes_up() && at.sends_data(request_frame(9, at.service.port())) &&
                    (at.data.reset(), at.data_comes() && at.answers_data());
         }},
        {"half an end, and the answer is still taken",
         [](scene& at) {
             const bool answered = at.comes_up() &&
                                   at.sends_data(request_frame(9, at.service.port())) &&
                                   shutdown(at.data.get(), SHUT_WR) == 0 && at.receives(9);
             reset(at.data);
             return answered && at.data_comes() && at.answers_data();
         }},
        {"end in place of an answer",
         [](scene& at) {
             return at.logs_in() && at.orders() && at.data_comes() &&
                    (at.data.reset(), at.data_comes() && at.answers_data());
         }},
        {"a late answer",
         [](scene& at) {
             const bool asked = at.logs_in() && at.orders() && at.data_comes();
             std::this_thread::sleep_for(test_duration{3000});
             return asked && at.answers_data();
         }},
        {"one byte at a time",
         [](scene& at) {
             return at.logs_in() && at.orders() && at.data_comes() &&
                    write_bytewise(at.data.get(), frame_bytes(LOGIN_ANSWER) +
                                                      request_frame(9, at.service.port())) &&
                    at.receives(9) && at.sends_data(frame_bytes(CLOSE_STREAM, 9));
         }},
        {"the server's name is unknown for a while",
         [](scene& at) {
             const bool unknown =
                 at.logs_in() && at.sends(order_of_one("name-of-data.test", at.data_server.port)) &&
                 at.device.logs("resolve domain failed, name-of-data.test");
             name_resolves("name-of-data.test");
             return unknown && at.data_comes() && at.answers_data();
         }},
    };
    expect_well_after(FAULTS);
}

// What is no answer makes the daemon ask the next server, here the same one by its other name.
TEST_F(Faults, OfTheAddressManagerLeadToTheNextOne) {
    const std::string head = "HTTP/1.1 200 OK\r\n\r\n", unknown = NOWHERE;
    const std::string REPLIES[] = {
        "",
        "HTTP/1.1 200 OK\r\nContent-Length: 40\r\n",
        "HTTP/1.1 404 Not Found\r\n\r\n{\"ret\":1}",
        head,
        head + "{\"ret\":0",
        head + "{\"ret\":0,\"proxy\":",
        head + "{\"ret\":0,\"proxy\":\"127.0.0.1",
        head + "{\"ret\":0,\"proxy\":\"127.0.0.1:9998",
        head + "{\"ret\":0,\"proxy\":\"127.0.0.1:0\"}",
        head + "{\"ret\":0,\"proxy\":\"127.0.0.1:65535\"}",
        head + "{\"ret\":0,\"proxy\":\"" + unknown + ":9998\"}",
        std::string("\0\r\n\r\n{\"ret\":0,\"proxy\":\"", 26) + noise(2000, 3),
        noise(100000, 4),
    };
    name_resolves("backup.example.net");
    std::vector<std::thread> threads;
    for (const std::string& reply : REPLIES) {
        for (const bool in_two : {false, true}) {
            threads.emplace_back([&reply, in_two] {
                SCOPED_TRACE(reply.substr(0, 80));
                scene at;
                unique_fd fd = at.manager.accept();
                read_until(fd.get(), "\r\n\r\n");
                write_all(fd.get(), reply);
                in_two ? reset(fd) : fd.reset();
                EXPECT_TRUE(at.comes_up() && at.carries() && !at.is_new());
            });
        }
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST_F(Faults, OfLocalServicesHarmNobodyElse) {
    using story = void (*)(int fd);
    constexpr story STORIES[] = {
        [](int fd) { reset_when_closed(fd); },
        [](int fd) { shutdown(fd, SHUT_RDWR); },
        [](int fd) { closed_by_peer(fd, std::chrono::hours{1}); },      // never answers
        [](int) { std::this_thread::sleep_for(test_duration{1000}); },  // never reads
        [](int fd) {
            write_all(fd, noise(MUCH, 1));
            reset_when_closed(fd);
            shutdown(fd, SHUT_RDWR);
        },
        [](int fd) {
            while (write_all(fd, noise(MUCH, 2))) {
            }
        },
    };
    const usage healthy = healthy_usage();
    std::vector<std::unique_ptr<local_service>> services;
    scene at;
    ASSERT_TRUE(at.comes_up());
    const loopback_listener refuses(-1);
    std::vector<uint16_t> ports{refuses.port};
    for (const story each : STORIES) {
        services.push_back(std::make_unique<local_service>(each));
        ports.push_back(services.back()->port());
    }
    std::string closes;
    for (int again = 0; again < 20; ++again) {
        for (const uint16_t port : ports) {
            const std::string request = request_text(port);
            const std::string body = frame_bytes(DATA, ++at.stream, noise(PAYLOAD_MAX, 5));
            ASSERT_TRUE(at.sends_data(frame_bytes(DATA, at.stream, request)));
            // Behind a request to a dead port as many bytes are thrown away: oddity 21.
            ASSERT_TRUE(at.sends_data(port == refuses.port ? request : body + body));
            closes += frame_bytes(CLOSE_STREAM, at.stream);
        }
    }
    EXPECT_TRUE(at.carries());
    ASSERT_TRUE(at.sends_data(closes));
    services.clear();
    expect_well(at, healthy);
}

TEST_F(Faults, OfDescriptorsEndTheProcess) {
    scene at;
    ASSERT_TRUE(at.comes_up());
    const rlimit few{usage_of(at.device).descriptors + 8, 1024};
    ASSERT_EQ(prlimit(at.first_pid, RLIMIT_NOFILE, &few, nullptr), 0);
    for (uint32_t id = 1; id <= few.rlim_cur && at.device.gwad.running(); ++id) {
        at.sends_data(request_frame(id, at.service.port()));
    }
    EXPECT_EQ(at.device.gwad.wait(), 1);
    EXPECT_TRUE(at.device.logs("open too many files"));
}

TEST_F(Faults, OfMemoryEndTheProcess) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer's own memory runs out first";
#endif
    scene at;
    ASSERT_TRUE(at.comes_up() && at.carries());
    const rlimit none{1, RLIM_INFINITY};
    ASSERT_EQ(prlimit(at.first_pid, RLIMIT_AS, &none, nullptr), 0);
    local_service never_reads([](int fd) { closed_by_peer(fd, std::chrono::hours{1}); });
    ASSERT_TRUE(at.sends_data(request_frame(9, never_reads.port())));
    const std::string body = frame_bytes(DATA, 9, noise(PAYLOAD_MAX, 5));
    while (at.device.gwad.running() && write_all(at.data.get(), body)) {
    }
    EXPECT_EQ(at.device.gwad.wait(), 1);
    EXPECT_TRUE(at.device.logs("malloc failed"));
}

// Nothing is written any more, and all goes on; what is written later is whole.
TEST_F(Faults, OfAFullDiskCostWhatIsWrittenMeanwhile) {
    const temp_dir disk;
    ASSERT_EQ(child({"/bin/mount", "-t", "tmpfs", "-o", "size=256k", "tmpfs", disk.path}).wait(),
              0);
    setenv("TMPDIR", disk.path.c_str(), 1);
    // A sanitizer keeps a file of its own where temporary ones are: not on this disk.
    std::optional<scene> at(std::in_place, "localhost", std::vector<std::string>{"TMPDIR=/tmp"});
    unsetenv("TMPDIR");
    ASSERT_TRUE(at->comes_up());
    const std::string id = "0123456789abcdefghijklmnopqrstuv", filler = disk.path + "/filler",
                      log = at->device.home.path + "/log",
                      kept = at->device.home.path + "/tmp/session.id";
    file_write(filler, std::string(1 << 20, 'f'));
    EXPECT_TRUE(at->sends(frame_bytes(SESSION_ID, 0, id)));
    EXPECT_TRUE(at->carries() && at->carries());
    EXPECT_TRUE(file_read(kept).empty());
    const size_t full = file_read(log).size();
    std::filesystem::remove(filler);
    EXPECT_TRUE(at->sends(frame_bytes(SESSION_ID, 0, id)));
    EXPECT_TRUE(eventually([&] { return file_read(kept) == id; }));
    EXPECT_TRUE(at->carries() && !at->is_new());
    EXPECT_GT(file_read(log).size(), full);
    std::istringstream lines(file_read(log));
    int broken = 0;
    for (std::string line; std::getline(lines, line);) {
        broken += line.find("<20", 1) != line.npos && line.find("> [gwad]", 25) != line.npos;
    }
    EXPECT_EQ(broken, 0);
    at.reset();
    child({"/bin/umount", disk.path}).wait();
}

// Days forward and years back: nobody is cut off, nothing ends, and no work is made up for.
TEST_F(Faults, OfTheClockChangeNothing) {
    const temp_dir folder;
    const std::string clock = folder.path + "/clock";
    file_write(clock, "+0");
    scene at("localhost",
             {"LD_PRELOAD=/usr/$LIB/faketime/libfaketimeMT.so.1", "FAKETIME_NO_CACHE=1",
              "FAKETIME_DONT_FAKE_MONOTONIC=1", "FAKETIME_TIMESTAMP_FILE=" + clock,
              "ASAN_OPTIONS=verify_asan_link_order=0"});
    ASSERT_TRUE(at.comes_up() && at.carries());
    ASSERT_TRUE(at.sends_data(request_frame(100, at.service.port())) && at.receives(100));
    const usage before = usage_of(at.device);
    for (const char* jump : {"+3d", "-9000d", "+9000d", "-1h"}) {
        file_write(clock, jump);
        std::this_thread::sleep_for(test_duration{1500});
        EXPECT_TRUE(at.carries() && !at.is_new()) << jump;
    }
    EXPECT_TRUE(at.device.logs("<2051-"));
    EXPECT_EQ(text_count(at.device.log(), "idle too long"), 0);
    expect_well(at, before);
}

// Whatever has begun by then, a start or a restart: all that belongs to it is told once, and ends.
TEST_F(Faults, ASignalAtAnyMomentEndsTheDaemon) {
    static constexpr test_duration SOON{5000};
    std::vector<std::pair<bool, test_duration>> moments;
    for (const int at_ms : {0, 1, 2, 3, 4, 5, 6, 8, 10, 13, 16, 20, 25, 30, 40, 60}) {
        moments.emplace_back(false, at_ms);
        moments.emplace_back(true, at_ms);
        moments.emplace_back(true, 1995 + at_ms);  // it pauses for two seconds before it executes
    }
    std::vector<std::thread> threads;
    for (const auto& [restarts, moment] : moments) {
        threads.emplace_back([restarts, moment] {
            SCOPED_TRACE((restarts ? "restart " : "start ") + std::to_string(moment.count()));
            const int number = moment.count() % 2 == 0 ? SIGTERM : SIGINT;
            session at("3");
            if (restarts) {
                EXPECT_TRUE(at.log_in());
                at.control.reset();
                EXPECT_TRUE(at.device.logs("!!!! restart the process !!!!"));
            }
            std::this_thread::sleep_for(moment);
            const pid_t group = at.device.gwad.pid();
            kill(-group, number);
            const std::optional<int> status = at.device.gwad.wait(SOON);
            EXPECT_TRUE(status == 0 || (!restarts && status == child::SIGNALLED + number));
            EXPECT_TRUE(eventually([&] { return kill(-group, 0) == -1; }, SOON));
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// Each change restarts the daemon, also one that comes while it is coming back. One daemon is left.
TEST_F(Faults, OfALinkThatFlapsEndInOneDaemon) {
    const usage healthy = healthy_usage();
    scene at;
    ASSERT_TRUE(at.comes_up() && at.device.logs("init port info success"));
    for (const char* state : {"down", "up", "down", "up"}) {
        child({"/usr/bin/env", "ip", "link", "set", "lo", state}).wait();
        std::this_thread::sleep_for(test_duration{700});
    }
    EXPECT_EQ(at.device.gwad.wait(), 0);
    EXPECT_TRUE(at.comes_up() && at.is_new());
    expect_well(at, healthy);
    EXPECT_EQ(text_count(at.device.log(), "gwad start"),
              1 + text_count(at.device.log(), "!!!! restart"));
}

// A device that is gone without a word, idle or not, is noticed; one that only does not read is not
// taken for it.
TEST_F(Faults, OfADevicesLinkAreNoticedByTheRelay) {
    const relay_program relay({"--gone-timeout=1", "--no-dead-port-guard"});
    const auto login = [](uint16_t port, uint8_t version, int receive_buffer = 0) {
        unique_fd fd = loopback_connect(port, receive_buffer);
        write_all(fd.get(), frame_bytes(DEVICE_INFO, 0, R"({"deviceid":"box"})", version));
        EXPECT_FALSE(frame_read(fd.get()).empty());
        return fd;
    };
    const auto shows = [&relay](const char* text) {
        const unique_fd fd = loopback_connect(relay.front);
        write_all(fd.get(), "GET /status.json HTTP/1.0\r\n\r\n");
        return read_to_end(fd.get()).find(text) != std::string::npos;
    };
    const auto link = [](const char* state) {
        child({"/usr/bin/env", "ip", "link", "set", "lo", state}).wait();
    };
    const unique_fd control = login(relay.control, 3), idle = login(relay.data, 2),
                    reads_nothing = login(relay.data, 2, 4096);
    const std::string upload = " HTTP/1.1\r\nContent-Length: 9000000\r\n\r\n" + noise(9000000, 6);
    std::vector<unique_fd> users;
    for (int user = 0; user < 2; ++user) {  // one for each data connection
        users.push_back(loopback_connect(relay.front));
        write_all(users.back().get(), "POST /box/80/" + upload, test_duration{500});
    }
    std::this_thread::sleep_for(test_duration{1000});
    EXPECT_TRUE(shows("\"data_connections\":2,") && shows("\"control\":true"));
    link("down");
    std::this_thread::sleep_for(test_duration{8000});
    link("up");
    EXPECT_TRUE(shows("\"data_connections\":0,") && shows("\"control\":false"))
        << relay.process.errors();
}
