// SIGTERM ends the daemon in order and soon, whatever it waits for.
#include "peer.h"

namespace {

// One daemon on its way into a state, with what must stay open meanwhile.
struct scene : session {
    std::vector<unique_fd> open;
    std::optional<local_service> service;

    int keep(unique_fd fd) { return open.emplace_back(std::move(fd)).get(); }
};

// Leaves no room in the listener's backlog, so that the next connect hangs.
void backlog_fill(scene& at, const loopback_listener& listener) {
    constexpr int CONNECTIONS = 4;
    listen(listener.fd.get(), 0);
    for (int i = 0; i < CONNECTIONS; ++i) {
        const int fd = at.keep(unique_fd{socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0)});
        connect(fd, reinterpret_cast<const sockaddr*>(&listener.address), sizeof listener.address);
    }
}

// Each leads the daemon into its state; false: it did not get there.
const struct {
    const char* name;
    bool (*enter)(scene& at);
} STATES[] = {
    {"discovery waits for its answer",
     [](scene& at) { return !read_until(at.keep(at.manager.accept()), "\r\n\r\n").empty(); }},
    {"control connect in progress",
     [](scene& at) {
         backlog_fill(at, at.control_server);
         at.discover();
         return at.device.logs("connecting in progress", 2);
     }},
    {"control login waits for its answer",
     [](scene& at) {
         at.discover();
         return !frame_read(at.keep(at.control_server.accept())).empty();
     }},
    {"heartbeat waits for its answer",
     [](scene& at) { return at.log_in_only() && at.device.logs("wait heartbeat response"); }},
    {"control payload half received, workers wait for an address",
     [](scene& at) {
         return at.log_in() &&
                at.sends(frame_bytes(PRIVACY, 0, std::string(900, 'x')).substr(0, 500)) &&
                at.device.logs("ignore set privacy data");
     }},
    {"data connect in progress",
     [](scene& at) {
         backlog_fill(at, at.data_server);
         return at.order() && at.device.logs("connecting in progress", 3);
     }},
    {"data login waits for its answer",
     [](scene& at) { return at.order() && !frame_read(at.keep(at.data_server.accept())).empty(); }},
    {"data connection relays", [](scene& at) { return at.relay() && echoes(at.data, 1); }},
    {"a server that reads nothing",
     [](scene& at) {
         at.service.emplace([](int fd) {
             while (write_all(fd, std::string(PAYLOAD_MAX, 'e'))) {
             }
         });
         const bool begun = at.relay() && at.sends_data(request_frame(1, at.service->port())) &&
                            at.device.logs("recv local server data", 20);
         std::this_thread::sleep_for(test_duration{300});  // until nothing moves any more
         return begun;
     }},
    {"diagnostic script runs",
     [](scene& at) {
         const std::string mark = at.device.home.path + "/diag";
         file_write(at.device.home.path + "/bin/diag.sh",
                    "#!/bin/sh\necho >" + mark + "\nexec sleep 60\n", true);
         return at.relay() && at.sends_data(debug_request(1, "diag")) &&
                eventually([&] { return !file_read(mark).empty(); });
     }},
};

}  // namespace

TEST(Sigterm, EndsTheDaemonFromEveryState) {
    std::vector<std::thread> threads;
    for (const auto& state : STATES) {
        threads.emplace_back([&state] {
            SCOPED_TRACE(state.name);
            scene at;
            EXPECT_TRUE(state.enter(at));
            EXPECT_EQ(at.device.gwad.terminate(SOON), 0);
            EXPECT_TRUE(at.device.logs("login exit success"));
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}
