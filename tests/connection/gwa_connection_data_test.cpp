#include "connection/gwa_connection_data.h"

#include "connection/connection_floor.h"
#include "support/child.h"

namespace {

// The real workers in a process of their own with short pauses: ordered to a port, unless that is
// 0, and told to end if they shall.
child workers(uint16_t port, bool end = false) {
    return child([port, end] {
        gwa_time.sleep_us = [](int64_t) { usleep(100); };
        gwa_now_refresh();
        gwa_login_init("localhost", nullptr, nullptr, nullptr, "lo", "box");
        gwa_connection_table_init();
        gwa_connection_data_init(&gwa_connections.data);
        if (port != 0) {
            gwa_connection_data_order_all(&gwa_connections.data, five_times("localhost", port));
        }
        end ? gwa_connection_all_destroy(&gwa_connections.data) : pause();
    });
}

// True when the lines have been logged one behind the other. They are part of what operators look
// for.
bool logs(const child& program, const std::vector<const char*>& lines) {
    return eventually([&] {
        const std::string log = program.errors();
        size_t at = 0;
        for (const char* line : lines) {
            at = log.find(line, at);
        }
        return at != std::string::npos;
    });
}

TEST(Worker, ResolvesItsServerAnewAfterThreeFailedLogins) {
    const loopback_listener closed{-1};
    const child program = workers(closed.port);
    EXPECT_TRUE(logs(
        program, {"<0> notify thread data conn 0 to init\n",
                  "<2> try to login server 0x7f000001:", " more than 3 times, but all failed\n",
                  "<0> re-resolve the domain localhost to 127.0.0.1\n", "<7> connection data id "}))
        << program.errors();
}

TEST(Worker, StartsOverAfterItsConnectionHasClosed) {
    const loopback_listener server;
    const child program = workers(server.port);
    for (int login = 0; login <= GWA_DATA_CONNECTIONS; login++) {
        const unique_fd data = server.accept();
        EXPECT_FALSE(frame_read(data.get()).empty());
        write_all(data.get(), frame_bytes(LOGIN_ANSWER) + frame_bytes(CLOSE_CONNECTION));
        EXPECT_TRUE(closed_by_peer(data.get()));
    }
    EXPECT_TRUE(logs(program, {"<0> close the TCP connection ", "<0> close connection data ",
                               "<7> connection data id ", "<0> start jump to restart ...\n",
                               "<1> long jump from 2 here\n", "<0> reinit thread ",
                               "<7> wait the control to init data addr\n"}))
        << program.errors();
}

TEST(Worker, EndsWhenItIsToldToWhereverItIs) {
    const loopback_listener closed{-1};
    for (const uint16_t port : {uint16_t{0}, closed.port}) {
        child program = workers(port, true);
        EXPECT_EQ(program.wait(), child::RETURNED);
        const std::string log = program.errors();
        EXPECT_EQ(text_count(log, "<0> signal to stop thread "), GWA_DATA_CONNECTIONS);
        EXPECT_EQ(text_count(log, "<0> recv stop signal, this thread "), GWA_DATA_CONNECTIONS);
        EXPECT_EQ(text_count(log, "join thread id"), 0) << "each one is waited for";
    }
}

}  // namespace
