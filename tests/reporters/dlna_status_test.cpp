#include "reporters/dlna_status.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "reporters/control_queue.h"
#include "reporters/dlna_client.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_timer_list.h"
#include "runtime/gwa_types.h"
#include "support/fake_time.h"
#include "support/files.h"
#include "support/frames.h"
#include "support/log_of.h"
#include "support/run_flags.h"
#include "support/sockets.h"

namespace {

// The reporter with a timer list that only passes when the test says so.
struct DlnaStatus : testing::Test {
    using words = std::vector<uint32_t>;
    static constexpr int64_t START = 1'000'000;  // s
    run_flags flags{true};
    fake_time time;
    temp_dir home;
    poll_set& poller = gwa_connections.cntl.poller;

    DlnaStatus() {
        gwa_log_level_set(GWA_LOG_OFF);
        gwa_connection_table_init();
        gwa_timer_list_make(&gwa_timer_default_list);
        text_copy(gwa_process_paths.dlna_socket, home.path + "/dlna.sock");
        at(0);
        begin();
    }
    ~DlnaStatus() override {
        dlna_status_timers_stop();
        poll_exit(&poller);
        EXPECT_EQ(dlna_status_exit(), 0) << "the socket file is removed";
        queued_frames();
        free(gwa_timer_default_list);
        gwa_timer_default_list = nullptr;
        gwa_log_level_set(GWA_LEVEL_DEBUG);
    }
    void begin() {
        EXPECT_EQ(poll_init(&poller), 0);
        dlna_status_start(&gwa_connections.cntl);
        EXPECT_EQ(poller.fd_count, 1);
    }
    // The clock, in seconds from the start; what is due by then fires.
    void at(int64_t seconds) {
        fake_time::now_us = (START + seconds) * 1'000'000 + 1;
        gwa_timer_expire_check(gwa_timer_default_list);
    }
    void handle_events(int waits = 8) {
        for (int i = 0; i < waits; i++) {
            poll_now(&poller);
        }
    }
    int clients() const { return poller.fd_count - 1; }
    unique_fd client() {
        unique_fd fd = unix_connect(gwa_process_paths.dlna_socket, SOCK_STREAM);
        EXPECT_TRUE(fd);
        return fd;
    }
    void says(const unique_fd& fd, uint32_t word) {
        EXPECT_EQ(send(fd.get(), &word, sizeof word, MSG_NOSIGNAL), ssize_t{sizeof word});
        handle_events();
    }
    // The words that have been reported since the last look.
    words reports() {
        words found;
        for (const std::string& frame : queued_frames()) {
            found.push_back(load_be32(reinterpret_cast<const uint8_t*>(frame.data()) + 16));
            EXPECT_EQ(frame, frame_bytes(STATUS, 0, be32(found.back())));
        }
        return found;
    }
};

TEST_F(DlnaStatus, ReportsTheFirstWordAtOnceAndLaterOnesNoMoreOftenThanT1) {
    unique_fd fd = client();
    says(fd, 1);
    EXPECT_EQ(reports(), words{1});
    at(1);
    says(fd, 2);
    at(3);
    says(fd, 3);
    EXPECT_EQ(reports(), words{}) << "a timer is pending";
    at(5);
    EXPECT_EQ(reports(), words{});
    at(7);
    EXPECT_EQ(reports(), words{3}) << "the newest word";
    at(12);
    says(fd, 4);
    EXPECT_EQ(reports(), words{}) << "exactly t1 after the timed report is too early";
    at(18);
    EXPECT_EQ(reports(), words{4});
    at(24);
    says(fd, 5);
    says(fd, 6);
    EXPECT_EQ(reports(), (words{5, 6})) << "at once does not count as a timed report";
    at(3601);
    EXPECT_EQ(reports(), words{6}) << "the repeat after t2";
    fd.reset();
    handle_events();
    EXPECT_EQ(clients(), 0);
}

TEST_F(DlnaStatus, AWordThatComesWhileTheTimerFiresIsReportedByTheNextOne) {
    const unique_fd fd = client();
    says(fd, 1);
    says(fd, 2);
    reports();
    fake_time::event = [&, said = false]() mutable {  // between the report and its end
        if (!said && gwa_connection_queue_is_empty(&gwa_connections.cntl.output) == 0) {
            said = true;
            says(fd, 3);
        }
    };
    fake_time::now_us += 5'000'001;  // due, and not yet longer ago than t1 in whole seconds
    gwa_timer_expire_check(gwa_timer_default_list);
    EXPECT_EQ(reports(), words{2});
    at(10);
    EXPECT_EQ(reports(), words{});
    at(11);
    EXPECT_EQ(reports(), words{3});
    at(30);
    EXPECT_EQ(reports(), words{});
}

TEST_F(DlnaStatus, SaysWhatItDoes) {
    using lines = std::vector<std::string>;
    unique_fd fd;
    EXPECT_EQ(log_lines_of(GWA_LEVEL_DEBUG, [&] { fd = client(), handle_events(2); })[0],
              "<6> accept connection ...");
    EXPECT_EQ(log_lines_of(GWA_LEVEL_INFO, [&] { says(fd, 0x1a); }),
              (lines{"<6> recv dlna status 0x1a", "<6> first time, report status",
                     "<6> report dlna status 0x1a", "<6> create a t2 timer", "<6> start a t2 timer",
                     "<6> start t2 timer success"}));
    at(1);
    const lines second = log_lines_of(GWA_LEVEL_DEBUG, [&] { says(fd, 2); });
    ASSERT_GT(second.size(), 3U);
    EXPECT_EQ(second[0], "<6> recv dlna status 0x2");
    EXPECT_EQ(second[1], "<7> now t1 is stopped");
    EXPECT_EQ(second[2], "<6> create a t1 timer");
    EXPECT_EQ(second.back(), "<6> start t1 timer success");
    EXPECT_EQ(log_lines_of(GWA_LEVEL_DEBUG, [&] { at(7); }),
              (lines{"<6> t1 timer expired", "<6> report dlna status 0x2"}));
    EXPECT_EQ(log_lines_of(GWA_LEVEL_DEBUG, [&] { at(3700); }),
              (lines{"<6> t2 timer expired", "<6> report dlna status 0x2"}));
    EXPECT_EQ(log_lines_of(GWA_LEVEL_DEBUG, [&] { says(fd, UINT32_MAX); }),
              (lines{"<3> recv status is -1"}));
    EXPECT_EQ(log_lines_of(GWA_LEVEL_DEBUG, [] { dlna_status_interval_set(1, 3600); }),
              (lines{"<6> set interval to t1 1 t2 3600",
                     "<3> t1 or t2 is error t1 = 1 t2 = 3600 (default is t1 min 2 default 5 t2 "
                     "default 3600)"}));
    fd.reset();
    EXPECT_EQ(log_lines_of(GWA_LEVEL_INFO, [&] { handle_events(); }),
              (lines{"<6> recv return 0, del it from the set"}));
    poll_exit(&poller);
    EXPECT_EQ(poll_init(&poller), 0);
    EXPECT_EQ(log_lines_of(GWA_LEVEL_DEBUG, [] { dlna_status_init(); }),
              (lines{"<6> sun path = " + home.path + "/dlna.sock",
                     "<0> dlna status socket init success"}));
    EXPECT_EQ(dlna_status_exit(), 0);
    text_copy(gwa_process_paths.dlna_socket, home.path + "/no/dlna.sock");
    EXPECT_EQ(log_lines_of(GWA_LEVEL_DEBUG, [] { EXPECT_EQ(dlna_status_init(), -1); }).back(),
              "<3> bind failed, No such file or directory");
    text_copy(gwa_process_paths.dlna_socket, home.path);  // a folder cannot be removed like that
    EXPECT_EQ(log_lines_of(GWA_LEVEL_DEBUG, [] { EXPECT_EQ(dlna_status_init(), -1); }),
              (lines{"<3> unlink failed"}));
    text_copy(gwa_process_paths.dlna_socket, home.path + "/dlna.sock");
    EXPECT_NE(dlna_status_init(), -1);
}

TEST_F(DlnaStatus, TakesReportingTimesInTheirRangeOnly) {
    const struct {
        uint32_t t1, t2;
        int result;
    } cases[] = {{1, 3600, -1}, {2, 3600, 0}, {3599, 3600, 0}, {3600, 3600, -1},
                 {5, 3599, -1}, {5, 3600, 0}, {0, 0, -1},      {5, UINT32_MAX, 0}};
    for (const auto& [t1, t2, result] : cases) {
        EXPECT_EQ(dlna_status_interval_set(t1, t2), result) << t1 << " " << t2;
    }
    dlna_status_interval_set(5, 3600);
    const unique_fd service = client();
    says(service, 1);
    at(3000);
    dlna_status_interval_set(2, 7200);  // counts from here
    reports();
    at(3601);
    dlna_status_interval_set(3, 7200);  // no change of t2: the timer goes on
    at(10199);
    EXPECT_EQ(reports(), words{});
    at(10201);
    EXPECT_EQ(reports(), words{1});
}

TEST_F(DlnaStatus, ClientsInAnyStateCostNoStepAndNoDescriptor) {
    unique_fd slow = client();
    for (const char byte : {'\x78', '\x56', '\x34', '\x12'}) {
        EXPECT_EQ(send(slow.get(), &byte, 1, 0), 1);
        handle_events();
    }
    EXPECT_EQ(reports(), words{0x12345678}) << "one byte at a time";
    unique_fd half = client();
    EXPECT_EQ(send(half.get(), "ab", 2, 0), 2);
    handle_events();
    EXPECT_EQ(clients(), 2);
    half.reset();
    handle_events();
    EXPECT_EQ(clients(), 1) << "half a word, then gone";

    at(10);  // from here on each word is reported at once
    std::vector<uint32_t> flood(1000, 7);
    flood.back() = 8;
    EXPECT_EQ(send(slow.get(), flood.data(), flood.size() * 4, 0), 4000);
    handle_events(1);
    EXPECT_EQ(reports(), words{7}) << "bounded";
    handle_events(20);
    EXPECT_EQ(reports().back(), 8U) << "and resumed";
    says(slow, UINT32_MAX);
    EXPECT_EQ(reports(), words{}) << "all ones is no word";
    slow.reset();

    unique_fd quick = client();
    const uint32_t last = 9;
    EXPECT_EQ(send(quick.get(), &last, sizeof last, 0), 4);
    quick.reset();
    reports();
    handle_events();
    EXPECT_EQ(reports(), words{9}) << "said and gone";

    EXPECT_EQ(clients(), 0);
}

TEST_F(DlnaStatus, SilentClientsKeepNobodyOut) {
    const unique_fd server = client();
    says(server, 1000);
    at(10);  // from here on each word is reported at once
    std::vector<unique_fd> crowd;
    for (uint32_t i = 0; i < 40; i++) {
        crowd.push_back(client());
        handle_events(2);
        if (i % 8 == 0) {
            reports();
            says(server, i + 1);
            EXPECT_EQ(reports(), words{i + 1}) << "who speaks now and then stays";
        }
    }
    EXPECT_EQ(clients(), DLNA_CLIENTS_MAX);
    const unique_fd newest = client();
    says(newest, 99);
    EXPECT_EQ(reports(), words{99}) << "a new one is heard";
    crowd.clear();
    handle_events();
    EXPECT_EQ(clients(), 2);
}

TEST_F(DlnaStatus, APassThatBeginsAnewKnowsNothingOfTheOldOne) {
    unique_fd fd = client();
    says(fd, 1);
    says(fd, 2);
    reports();
    poll_exit(&poller);
    begin();
    at(100000);
    EXPECT_EQ(reports(), words{}) << "no timer is left";
    const unique_fd anew = client();
    says(anew, 3);
    EXPECT_EQ(reports(), words{3}) << "the first word of this pass";
    EXPECT_EQ(clients(), 1);
}

TEST_F(DlnaStatus, APathThatIsTooLongStillComesUpAgainAfterAKill) {
    poll_exit(&poller);
    poll_init(&poller);
    constexpr size_t LONGEST = 108;  // what an address holds
    const std::string path = home.path + "/" + std::string(LONGEST, 's');
    for (const size_t length : {LONGEST, path.size()}) {
        text_copy(gwa_process_paths.dlna_socket, path.substr(0, length));
        EXPECT_NE(dlna_status_init(), -1);
        EXPECT_EQ(access(path.substr(0, LONGEST).c_str(), F_OK), 0);
        EXPECT_NE(dlna_status_init(), -1) << "in place of the file that is left";
    }
}

}  // namespace
