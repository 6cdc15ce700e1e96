#include "reporters/port_info.h"

#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "devid.h"
#include "main/gwa_log.h"
#include "reporters/control_queue.h"
#include "support/files.h"
#include "support/frames.h"
#include "support/log_of.h"
#include "support/sockets.h"

namespace {

using texts = std::vector<std::string>;

struct PortInfo : testing::Test {
    temp_dir directory;
    sockaddr_un address{};
    int service = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);

    PortInfo() {
        gwa_log_level_set(GWA_LOG_OFF);
        gwa_connection_table_init();
        poll_init(&gwa_connections.cntl.poller);
        address.sun_family = AF_UNIX;
        text_copy(address.sun_path, directory.path + "/port.sock");
        port_info_start(&gwa_connections.cntl, address.sun_path);
        EXPECT_EQ(gwa_connections.cntl.poller.fd_count, 1);
    }
    ~PortInfo() override {
        poll_exit(&gwa_connections.cntl.poller);
        const int other = dup(service);  // of the number that the poller has just closed
        port_info_socket_exit();
        EXPECT_EQ(close(other), 0) << "closed with the poller, so not once more";
        close(service);
        gwa_log_level_set(GWA_LEVEL_DEBUG);
    }
    void sends(const void* bytes, size_t size) {
        EXPECT_EQ(
            sendto(service, bytes, size, 0, reinterpret_cast<sockaddr*>(&address), sizeof address),
            static_cast<ssize_t>(size));
    }
    void announces(uint32_t module, uint32_t port) {
        const uint32_t both[] = {module, port};
        sends(both, sizeof both);
    }
    // What has been reported after one wait.
    static texts reports() {
        gwa_connections.cntl.poller.timeout = 1;
        poll_wait(&gwa_connections.cntl.poller);
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
    sends("", 0);
    sends("1234567", 7);
    sends(std::string(5000, 'x').data(), 5000);
    announces(5, 70000);
    EXPECT_EQ(reports(),
              (texts{"{\"http_port\":8080}", "{\"ubq_port\":0}", "{\"kctl_port\":70000}"}));
}

// A library that fails may have taken nothing off the socket.
TEST_F(PortInfo, AFailingLibraryNeitherSpinsNorFillsTheLog) {
    for (int i = 0; i < 9; i++) {  // what the socket holds, less one
        sends("bad", 3);
    }
    announces(3, 1);
    EXPECT_EQ(log_lines_of(GWA_LEVEL_ERROR, [] { EXPECT_EQ(reports(), texts{}); }),
              texts(8, "<3> recv port info failed"));
    announces(6, 7);
    announces(4, 2);
    sends("bad", 3);
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
    close(std::exchange(gwa_connections.cntl.poller.epfd, -1));  // it takes nobody in any more
    const auto start = [&] {  // the number of the next descriptor
        port_info_start(&gwa_connections.cntl, address.sun_path);
        return unique_fd(dup(service)).get();
    };
    const int next = start();
    EXPECT_EQ(start(), next) << "the socket of the start before is closed";
}

}  // namespace
