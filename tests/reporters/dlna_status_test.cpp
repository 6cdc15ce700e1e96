#include "reporters/dlna_status.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "reporters/control_queue.h"
#include "reporters/dlna_client.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_timer_list.h"
#include "runtime/gwa_types.h"
#include "support/fake_time.h"
#include "support/files.h"
#include "support/frames.h"
#include "support/run_flags.h"
#include "support/sockets.h"

namespace {

using words = std::vector<uint32_t>;

// The reporter with a timer list that only passes when the test says so.
struct DlnaStatus : testing::Test {
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
        free(std::exchange(gwa_timer_default_list, nullptr));
        gwa_log_level_set(GWA_LEVEL_DEBUG);
    }
    void begin() {
        EXPECT_EQ(poll_init(&poller), 0);
        dlna_status_start(&gwa_connections.cntl);
        EXPECT_EQ(poller.fd_count, 1);
    }
    int clients() const { return poller.fd_count - 1; }
    static unique_fd client() { return unix_connect(gwa_process_paths.dlna_socket, SOCK_STREAM); }
    // The words that have been reported since the last look.
    static words reports() {
        words found;
        for (const std::string& frame : queued_frames()) {
            found.push_back(load_be32(reinterpret_cast<const uint8_t*>(frame.data()) + 16));
            EXPECT_EQ(frame, frame_bytes(STATUS, 0, be32(found.back())));
        }
        return found;
    }
    // The clock, in seconds from the start; what is due by then fires.
    static words at(int64_t seconds) {
        constexpr int64_t START = 1'000'000;
        fake_time::now_us = (START + seconds) * 1'000'000 + 1;
        gwa_timer_expire_check(gwa_timer_default_list);
        return reports();
    }
    words handle_events(int waits = 8) {
        for (int i = 0; i < waits; i++) {
            poll_now(&poller);
        }
        return reports();
    }
    words sends(const unique_fd& fd, std::string_view bytes, int waits = 8) {
        EXPECT_EQ(send(fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
        return handle_events(waits);
    }
    // In host order, as the media server writes them.
    static std::string bytes_of(const words& said) {
        return {reinterpret_cast<const char*>(said.data()), said.size() * sizeof said[0]};
    }
    words says(const unique_fd& fd, uint32_t word) { return sends(fd, bytes_of({word})); }
};

TEST_F(DlnaStatus, ReportsTheFirstWordAtOnceAndLaterOnesNoMoreOftenThanT1) {
    unique_fd fd = client();
    EXPECT_EQ(says(fd, 1), words{1});
    at(1);
    EXPECT_EQ(says(fd, 2), words{});
    at(3);
    EXPECT_EQ(says(fd, 3), words{}) << "a timer is pending";
    EXPECT_EQ(at(5), words{});
    EXPECT_EQ(at(7), words{3}) << "the newest word";
    at(12);
    EXPECT_EQ(says(fd, 4), words{}) << "exactly t1 after the timed report is too early";
    EXPECT_EQ(at(18), words{4});
    at(24);
    EXPECT_EQ(says(fd, 5), words{5});
    EXPECT_EQ(says(fd, 6), words{6}) << "at once does not count as a timed report";
    EXPECT_EQ(at(3601), words{6}) << "the repeat after t2";
}

TEST_F(DlnaStatus, AWordThatComesWhileTheTimerFiresIsReportedByTheNextOne) {
    const unique_fd fd = client();
    says(fd, 1);
    says(fd, 2);
    fake_time::event = [&, said = false]() mutable {  // between the report and its end
        if (!said && gwa_connection_queue_is_empty(&gwa_connections.cntl.output) == 0) {
            said = true;
            EXPECT_EQ(says(fd, 3), words{2});
        }
    };
    fake_time::now_us += 5'000'001;  // due, and not yet longer ago than t1 in whole seconds
    gwa_timer_expire_check(gwa_timer_default_list);
    EXPECT_EQ(at(10), words{});
    EXPECT_EQ(at(11), words{3});
    EXPECT_EQ(at(30), words{});
}

TEST_F(DlnaStatus, TakesReportingTimesInTheirRangeOnly) {
    const std::tuple<uint32_t, uint32_t, int> cases[] = {
        {1, 3600, -1}, {2, 3600, 0}, {3599, 3600, 0},    {3600, 3600, -1},
        {5, 3599, -1}, {0, 0, -1},   {5, UINT32_MAX, 0}, {5, 3600, 0}};
    for (const auto& [t1, t2, result] : cases) {
        EXPECT_EQ(dlna_status_interval_set(t1, t2), result) << t1 << " " << t2;
    }
    const unique_fd service = client();
    says(service, 1);
    at(3000);
    dlna_status_interval_set(2, 7200);  // counts from here
    EXPECT_EQ(at(3601), words{});
    dlna_status_interval_set(3, 7200);  // no change of t2: the timer goes on
    EXPECT_EQ(at(10199), words{});
    EXPECT_EQ(at(10201), words{1});
}

TEST_F(DlnaStatus, ClientsInAnyStateCostNoStepAndNoDescriptor) {
    unique_fd slow = client(), half = client();
    sends(half, "ab");
    const std::string two_words = bytes_of({0x12345678, 9});
    for (const size_t byte : {0U, 1U, 2U}) {
        EXPECT_EQ(sends(slow, two_words.substr(byte, 1)), words{});
    }
    EXPECT_EQ(sends(slow, two_words.substr(3)), words{9}) << "the last one that is whole";
    EXPECT_EQ(clients(), 2);
    half.reset();
    handle_events();
    EXPECT_EQ(clients(), 1) << "half a word, then gone";

    at(10);  // from here on each word is reported at once
    words flood(1000, 7);
    flood.back() = 8;
    EXPECT_EQ(sends(slow, bytes_of(flood), 1), words{7}) << "bounded";
    EXPECT_EQ(handle_events(20).back(), 8U) << "and resumed";
    EXPECT_EQ(says(slow, UINT32_MAX), words{}) << "all ones is no word";
    sends(slow, bytes_of({10}), 0);
    slow.reset();
    EXPECT_EQ(handle_events(), words{10}) << "said and gone";
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
            EXPECT_EQ(says(server, i + 1), words{i + 1}) << "who speaks now and then stays";
        }
    }
    EXPECT_EQ(clients(), DLNA_CLIENTS_MAX);
    const unique_fd newest = client();
    EXPECT_EQ(says(newest, 99), words{99}) << "a new one is heard";
    crowd.clear();
    handle_events();
    EXPECT_EQ(clients(), 2);
}

TEST_F(DlnaStatus, APassThatBeginsAnewKnowsNothingOfTheOldOne) {
    const unique_fd fd = client();
    says(fd, 1);
    says(fd, 2);
    poll_exit(&poller);
    begin();
    EXPECT_EQ(at(100000), words{}) << "no timer is left";
    const unique_fd anew = client();
    EXPECT_EQ(says(anew, 3), words{3}) << "the first word of this pass";
    EXPECT_EQ(clients(), 1);
}

TEST_F(DlnaStatus, TakesThePlaceOfAFileThatIsLeft) {
    poll_exit(&poller);
    poll_init(&poller);
    std::string longest = home.path + "/";
    longest.resize(sizeof sockaddr_un::sun_path, 's');
    const std::pair<std::string, bool> paths[] = {
        {home.path + "/no/dlna.sock", false},  // there is no such folder
        {home.path, false},                    // a folder is nobody's leftover
        {longest, true},
        {longest + "s", true},  // cut
    };
    for (const auto& [path, good] : paths) {
        text_copy(gwa_process_paths.dlna_socket, path);
        EXPECT_EQ(dlna_status_init() != -1, good) << path;
        EXPECT_EQ(dlna_status_init() != -1, good) << path;
    }
    EXPECT_EQ(access(longest.c_str(), F_OK), 0);
}

}  // namespace
