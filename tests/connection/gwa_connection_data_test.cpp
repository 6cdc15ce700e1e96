#include "connection/gwa_connection_data.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "connection/gwa_connection.h"
#include "login/gwa_login.h"
#include "main/gwa_log.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_util_time.h"
#include "support/child.h"
#include "support/frames.h"
#include "support/sockets.h"

namespace {

void order(uint16_t port) {
    gwa_host_list servers;
    for (int i = 0; i < GWA_HOST_COUNT; i++) {
        text_copy(servers.hosts[i], "localhost");
        servers.ports[i] = port;
    }
    gwa_connection_data_order_all(&gwa_connections.data, servers);
}

// The real workers in a process of their own, with short pauses, until it is killed.
child workers(uint16_t port) {
    return child([port] {
        gwa_time.sleep_us = [](int64_t) { usleep(100); };
        gwa_now_refresh();
        gwa_login_init("localhost", nullptr, nullptr, nullptr, "lo", "box");
        gwa_connection_table_init();
        gwa_connection_data_init(&gwa_connections.data);
        order(port);
        pause();
    });
}

int count(const std::string& text, const std::string& part, size_t end) {
    int found = 0;
    for (size_t at = text.find(part); at < end; at = text.find(part, at + 1)) {
        found++;
    }
    return found;
}

TEST(Worker, ResolvesItsServerAnewAfterThreeFailedLogins) {
    const loopback_listener closed{-1};
    child program = workers(closed.port);
    const std::string again = "<0> re-resolve the domain localhost to 127.0.0.1\n";
    EXPECT_TRUE(eventually([&] { return program.errors().find(again) != std::string::npos; }));
    const std::string log = program.errors();
    const size_t tried = log.find("<2> try to login server 0x7f000001:");
    EXPECT_LT(tried, log.find(again));
    EXPECT_NE(log.find(" more than 3 times, but all failed\n", tried), std::string::npos);
    for (int id = 0; id < GWA_DATA_CONNECTIONS; id++) {
        EXPECT_EQ(count(log, "<0> notify thread data conn " + std::to_string(id) + " to init\n",
                        log.size()),
                  1);
    }
}

// The lines that say so are part of what operators look for.
TEST(Worker, StartsOverAfterItsConnectionHasClosed) {
    const loopback_listener server;
    child program = workers(server.port);
    for (int login = 0; login < GWA_DATA_CONNECTIONS; login++) {
        const unique_fd data = server.accept();
        EXPECT_FALSE(frame_read(data.get()).empty());
        write_all(data.get(), frame_bytes(LOGIN_ANSWER) + frame_bytes(CLOSE_CONNECTION));
        EXPECT_TRUE(closed_by_peer(data.get()));
    }
    const unique_fd again = server.accept();
    EXPECT_FALSE(frame_read(again.get()).empty());
    const std::string log = program.errors();
    size_t at = 0;
    for (const char* line :
         {"<0> close the TCP connection ", "<0> close connection data ", "<7> connection data id ",
          "<0> start jump to restart ...\n", "<1> long jump from 2 here\n", "<0> reinit thread ",
          "<7> wait the control to init data addr\n"}) {
        at = log.find(line, at);
        EXPECT_NE(at, std::string::npos) << line;
    }
}

TEST(Worker, AnOrderReachesEachOneASecondApartAlsoWhenItIsRepeated) {
    child program([] {
        gwa_log_level_set(GWA_LOG_OFF);
        gwa_connection_table_init();
        static int slept;
        slept = 0;
        gwa_time.sleep_us = [](int64_t us) { slept += us == 1'000'000 ? 1 : 1000; };
        for (int repeat = 1; repeat <= 2; repeat++) {
            order(77);
            for (gwa_connection_data& conn : gwa_connections.data) {
                EXPECT_TRUE(gwa_connection_data_order_waits(&conn));
                EXPECT_TRUE(gwa_connection_data_addr_init(&conn));
                EXPECT_FALSE(gwa_connection_data_order_waits(&conn));
                EXPECT_EQ(conn.order.server_address, INADDR_LOOPBACK);
                EXPECT_EQ(conn.order.port, 77);
            }
        }
        _exit(slept == 10 && gwa_connection_run == 1 && !testing::Test::HasFailure() ? 0 : 1);
    });
    EXPECT_EQ(program.wait(), 0) << program.errors();
}

TEST(Worker, EndsWhenItIsToldToWhereverItIs) {
    for (const bool ordered : {false, true}) {
        const loopback_listener closed{-1};
        child program([&] {
            gwa_time.sleep_us = [](int64_t) { usleep(100); };
            gwa_login_init("localhost", nullptr, nullptr, nullptr, "lo", "box");
            gwa_connection_table_init();
            gwa_connection_data_init(&gwa_connections.data);
            if (ordered) {
                order(closed.port);
            }
            gwa_connection_all_destroy(&gwa_connections.data);
        });
        EXPECT_EQ(program.wait(), child::RETURNED);
        const std::string log = program.errors();
        for (int id = 0; id < GWA_DATA_CONNECTIONS; id++) {
            for (const char* line :
                 {"<0> signal to stop thread ", "<0> recv stop signal, this thread "}) {
                EXPECT_EQ(count(log, line + std::to_string(id) + "\n", log.size()), 1) << line;
            }
        }
        EXPECT_EQ(log.find("join thread id"), std::string::npos);
    }
}

}  // namespace
