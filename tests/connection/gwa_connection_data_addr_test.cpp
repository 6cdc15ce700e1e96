#include "connection/gwa_connection_data_addr.h"

#include "connection/connection_floor.h"
#include "support/log_of.h"

namespace {

struct DataAddress : data_floor {
    static constexpr const char* NO_NAME = "no..name";  // which no resolver asks anybody about
    void order(const char* domain) {
        gwa_host_list servers;
        for (int i = 0; i < GWA_HOST_COUNT; i++) {
            text_copy(servers.hosts[i], domain);
            servers.ports[i] = 80;
        }
        gwa_connection_data_order_all(&gwa_connections.data, servers);
    }
    // When so many seconds have passed.
    void after(int64_t seconds, std::function<void()> event) {
        fake_time::event = [at = fake_time::now_us + seconds * 1'000'000, event] {
            if (fake_time::now_us >= at) {
                const auto now = event;  // before the next line takes it away
                fake_time::event = [] {};
                now();
            }
        };
    }
};

TEST_F(DataAddress, AnUnknownNameIsTriedEveryFourSecondsUntilThereIsANewerOrder) {
    order(NO_NAME);
    after(9, [this] { order("127.0.0.2"); });
    const int64_t begun = fake_time::now_us;
    EXPECT_EQ(
        log_lines_of(GWA_LEVEL_FATAL, [this] { EXPECT_TRUE(gwa_connection_data_addr_init(conn)); })
            .size(),
        3U + 5U)
        << "three failures, and five workers told";
    EXPECT_LE(fake_time::now_us - begun, (9 + 5 + 1) * 1'000'000) << "and taken at once";
    EXPECT_EQ(conn->order.server_address, INADDR_LOOPBACK + 1);
    EXPECT_STREQ(conn->order.domain, "127.0.0.2");
    EXPECT_EQ(conn->order.port, 80);
}

TEST_F(DataAddress, AnEndIsSeenWithinASecondAndAsksNobodyAnyMore) {
    order(NO_NAME);
    for (const bool all : {false, true}) {
        after(2, [this, all] {
            all ? (void)(gwa_process_run = 0)
                : conn->flags.store(GWA_CONNECTION_STOP | GWA_CONNECTION_ADDRESS_SET);
        });
        const int64_t begun = fake_time::now_us;
        EXPECT_EQ(log_lines_of(GWA_LEVEL_FATAL,
                               [this] { EXPECT_FALSE(gwa_connection_data_addr_init(conn)); })
                      .size(),
                  1U);
        EXPECT_LE(fake_time::now_us - begun, 3'000'000);
        conn->flags = GWA_CONNECTION_ADDRESS_SET;
    }
}

TEST_F(DataAddress, AFailedReResolveKeepsTheAddress) {
    order(NO_NAME);
    conn->order.server_address = INADDR_LOOPBACK;
    text_copy(conn->order.domain, NO_NAME);
    gwa_connection_data_re_resolve(conn, 3);
    EXPECT_EQ(conn->order.server_address, INADDR_LOOPBACK);
}

}  // namespace
