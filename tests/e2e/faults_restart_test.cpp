// How the daemon ends and comes back: by signals, for links and addresses that change, through the
// box's init script or by itself; and a relay's view of one that does not.
#include "faults.h"
#include "support/relay_program.h"

// Whatever has begun by then, a start or a restart: all that belongs to it is told once, and ends.
TEST_F(Faults, ASignalAtAnyMomentEndsTheDaemon) {
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

TEST_F(Faults, OfAnAddressRunTheInitScript) {
    constexpr char SCRIPT[] = "/etc/init.d/gwadsh";
    scene at;
    const std::string mark = at.device.home.path + "/started";
    file_write(SCRIPT, "#!/bin/sh\necho \"$0 $*\" >" + mark, true);
    ASSERT_TRUE(at.logs_in() && at.device.logs("init port info success"));  // the last reporter
    child({"/usr/bin/env", "ip", "address", "replace", "10.9.9.9/32", "dev", "lo"}).wait();
    EXPECT_TRUE(at.device.restarts());
    EXPECT_TRUE(eventually([&] { return file_read(mark) == "/etc/init.d/gwadsh start\n"; }));
    EXPECT_EQ(text_count(at.device.log(), "gwad start"), 1);
    remove(SCRIPT);
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
    EXPECT_TRUE(
        eventually([&] { return text_count(relay.process.errors(), "gone without a word") == 3; },
                   FAULT_PATIENCE));
    link("up");
    EXPECT_TRUE(shows("\"data_connections\":0,") && shows("\"control\":false"))
        << relay.process.errors();
}
