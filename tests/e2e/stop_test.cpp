// SIGTERM ends the daemon in order and soon, whatever it waits for.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <list>

#include "peer.h"
#include "support/service.h"

namespace {

constexpr test_duration SOON{5000};

// One daemon on its way into a state, with what must stay open meanwhile.
struct scene : session {
    std::list<unique_fd> open;
    std::unique_ptr<local_service> service;

    int keep(unique_fd fd) { return open.emplace_back(std::move(fd)).get(); }
    bool to_control(std::string_view bytes) { return log_in() && write_all(control.get(), bytes); }
    bool to_data(std::string_view bytes) { return relay() && write_all(data.get(), bytes); }
    bool order() { return to_control(frame_bytes(DATA_ORDER, 0, server.order())); }
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

// True once the daemon can neither send nor take more: it has nothing left to say in the log.
bool endless_stream(scene& at) {
    constexpr test_duration QUIET{300};
    at.service = std::make_unique<local_service>([](int fd) {
        while (write_all(fd, std::string(PAYLOAD_MAX, 'e'))) {
        }
    });
    return at.to_data(request_frame(1, at.service->port())) &&
           at.device.logs("recv local server data", 20) && eventually([&] {
               const size_t before = at.device.log().size();
               std::this_thread::sleep_for(QUIET);
               return at.device.log().size() == before;
           });
}

// Each leads the daemon into its state; false: it did not get there.
const struct {
    const char* name;
    bool (*enter)(scene& at);
} STATES[] = {
    {"discovery waits for its answer",
     [](scene& at) {
         return !read_until(at.keep(at.server.manager.accept()), "\r\n\r\n").empty();
     }},
    {"control connect in progress",
     [](scene& at) {
         backlog_fill(at, at.server.control);
         at.server.discover();
         return at.device.logs("connecting in progress", 2);
     }},
    {"control login waits for its answer",
     [](scene& at) {
         at.server.discover();
         return !frame_read(at.keep(at.server.control.accept())).empty();
     }},
    {"pause after a failed control login",
     [](scene& at) {
         at.server.discover();
         at.server.control.accept();
         return at.device.logs("login server failed");
     }},
    {"heartbeat waits for its answer",
     [](scene& at) {
         at.keep(at.server.login());
         return at.device.logs("wait heartbeat response");
     }},
    {"idle, workers wait for an address", [](scene& at) { return at.log_in(); }},
    {"control header half received",
     [](scene& at) { return at.to_control(frame_bytes(PRIVACY).substr(0, 7)); }},
    {"control payload half received",
     [](scene& at) {
         const std::string whole = frame_bytes(PRIVACY, 0, std::string(900, 'x'));
         return at.to_control(whole.substr(0, 500)) && at.device.logs("ignore set privacy data");
     }},
    {"data connect in progress",
     [](scene& at) {
         backlog_fill(at, at.server.data[0]);
         return at.order() && at.device.logs("connecting in progress", 3);
     }},
    {"data login waits for its answer",
     [](scene& at) {
         return at.order() && !frame_read(at.keep(at.server.data[0].accept())).empty();
     }},
    {"data connection relays", [](scene& at) { return at.relay() && echoes(at.data.get(), 1); }},
    {"data header half received",
     [](scene& at) { return at.to_data(debug_frame(1, "echo").substr(0, 9)); }},
    {"data payload half received",
     [](scene& at) { return at.to_data(debug_frame(1, "echo").substr(0, 50)); }},
    {"discard after a dead local port",
     [](scene& at) {
         const uint16_t dead = loopback_listener().port;
         return at.to_data(request_frame(1, dead)) && at.device.logs("connect failed");
     }},
    {"a server that reads nothing", endless_stream},
    {"diagnostic script runs",
     [](scene& at) {
         const std::string mark = at.device.home.path + "/diag";
         file_write(at.device.home.path + "/bin/diag.sh",
                    "#!/bin/sh\necho >" + mark + "\nexec sleep 60\n", true);
         return at.to_data(debug_frame(1, "diag")) &&
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
            EXPECT_EQ(at.device.gwad->terminate(SOON), 0);
            EXPECT_TRUE(at.device.logs("login exit success"));
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}
