#include "reporters/port_info.h"

#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

#include "reporters/control_queue.h"
#include "support/files.h"
#include "support/frames.h"
#include "support/log_of.h"
#include "support/sockets.h"

namespace {

using texts = std::vector<std::string>;

struct PortInfo : testing::Test {
    temp_dir directory;
    const std::string path = directory.path + "/port.sock";
    poll_set& poller = gwa_connections.cntl.poller;
    unique_fd service;

    PortInfo() {
        gwa_log_level_set(GWA_LOG_OFF);
        gwa_connection_table_init();
        poll_init(&poller);
        port_info_start(&gwa_connections.cntl, path.c_str());
        EXPECT_EQ(poller.fd_count, 1);
        service = unix_connect(path, SOCK_DGRAM);
    }
    ~PortInfo() override {
        poll_exit(&poller);
        const int other = dup(service.get());  // of the number that the poller has just closed
        port_info_socket_exit();
        EXPECT_EQ(close(other), 0) << "closed with the poller, so not once more";
        gwa_log_level_set(GWA_LEVEL_DEBUG);
    }
    void sends(std::string_view bytes) const {
        EXPECT_EQ(send(service.get(), bytes.data(), bytes.size(), 0), ssize(bytes));
    }
    void announces(uint32_t module, uint32_t port) const {
        const uint32_t both[] = {module, port};
        sends({reinterpret_cast<const char*>(both), sizeof both});
    }
    // What has been reported after one wait.
    texts reports() const {
        poll_now(&poller);
        texts found;
        for (const std::string& frame : queued_frames()) {
            found.push_back(frame_payload(frame));
            EXPECT_EQ(frame, frame_bytes(PORT_INFO, 0, found.back()));
        }
        return found;
    }
};

TEST_F(PortInfo, ReportsEveryAnnouncementThatWaitsAndDropsGarbage) {
    announces(3, 8080);
    announces(4, 0);
    announces(6, 1);
    sends("");
    sends("1234567");
    sends(std::string(5000, 'x'));
    announces(5, 70000);
    EXPECT_EQ(reports(),
              (texts{"{\"http_port\":8080}", "{\"ubq_port\":0}", "{\"kctl_port\":70000}"}));
}

// A library that fails may have taken nothing off the socket.
TEST_F(PortInfo, AFailingLibraryNeitherSpinsNorFillsTheLog) {
    for (int i = 0; i < 9; i++) {  // what the socket holds, less one
        sends("bad");
    }
    announces(3, 1);
    EXPECT_EQ(log_lines_of(GWA_LEVEL_ERROR, [&] { EXPECT_EQ(reports(), texts{}); }),
              texts(8, "<3> recv port info failed"));
    announces(6, 7);
    announces(4, 2);
    sends("bad");
    const texts expected = {"{\"http_port\":1}", "{\"ubq_port\":2}"};
    EXPECT_EQ(log_lines_of(GWA_LEVEL_ERROR, [&] { EXPECT_EQ(reports(), expected); }),
              (texts{"<3> module not support, 6", "<3> recv port info failed"}))
        << "the ninth in a row is not told of, the first one after a success is";
}

TEST_F(PortInfo, NeitherBlocksNorReportsWithoutAnAnnouncement) {
    port_info_recv_handle(EPOLLIN, nullptr);  // spurious
    announces(3, 1);
    port_info_recv_handle(EPOLLOUT, nullptr);  // not what it waits for
    EXPECT_TRUE(queued_frames().empty());
}

TEST_F(PortInfo, StartsAnewWithoutLosingADescriptor) {
    close(std::exchange(poller.epfd, -1));  // it takes nobody in any more
    const auto start = [&] {                // the number of the next descriptor
        port_info_start(&gwa_connections.cntl, path.c_str());
        return unique_fd(dup(service.get())).get();
    };
    const int next = start();
    EXPECT_EQ(start(), next) << "the socket of the start before is closed";
    port_info_socket_exit();
    const int other = dup(service.get());  // which gets its number
    port_info_socket_exit();
    EXPECT_EQ(close(other), 0) << "closed already, so not once more";
}

}  // namespace
