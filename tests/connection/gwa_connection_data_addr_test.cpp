#include "connection/gwa_connection_data_addr.h"

#include "connection/connection_floor.h"

namespace {

struct DataAddress : data_floor {
    static void order(const char* domain) {
        gwa_connection_data_order_all(&gwa_connections.data, five_times(domain));
    }
    // How often a wait for an address logs at the level of failures, when so many seconds later
    // something happens; and the seconds that have passed.
    std::pair<size_t, int64_t> init(bool succeeds, int64_t seconds, std::function<void()> event) {
        const int64_t begun = fake_time::now_us;
        fake_time::event = [at = begun + seconds * 1'000'000, event] {
            if (fake_time::now_us >= at) {
                const auto now = event;  // before the next line takes it away
                fake_time::event = [] {};
                now();
            }
        };
        const auto lines = log_lines_of(
            GWA_LEVEL_FATAL, [&] { EXPECT_EQ(gwa_connection_data_addr_init(conn), succeeds); });
        return {lines.size(), (fake_time::now_us - begun) / 1'000'000};
    }
};

TEST_F(DataAddress, AnOrderReachesEachWorkerASecondApartAlsoWhenItIsRepeated) {
    gwa_connection_run = 0;
    for (int64_t repeat = 1; repeat <= 2; repeat++) {
        order("127.0.0.1");
        EXPECT_EQ(fake_time::now_us, (START + repeat * 5) * 1'000'000);
        for (gwa_connection_data& each : gwa_connections.data) {
            EXPECT_TRUE(gwa_connection_data_order_waits(&each));
            EXPECT_TRUE(gwa_connection_data_addr_init(&each));
            EXPECT_FALSE(gwa_connection_data_order_waits(&each));
            EXPECT_EQ(each.order.server_address, INADDR_LOOPBACK);
            EXPECT_EQ(each.order.port, 80);
        }
    }
    EXPECT_EQ(gwa_connection_run, 1);
}

TEST_F(DataAddress, AnUnknownNameIsTriedEveryFourSecondsUntilThereIsAnEndOrANewerOrder) {
    order("no..name");  // which no resolver asks anybody about
    using lines_and_seconds = std::pair<size_t, int64_t>;
    EXPECT_EQ(init(false, 2, [] { gwa_process_run = 0; }), (lines_and_seconds{1, 3}));
    gwa_process_run = 1;
    EXPECT_EQ(init(false, 2, [this] { conn->flags |= GWA_CONNECTION_STOP; }),
              (lines_and_seconds{1, 3}));
    conn->flags = GWA_CONNECTION_ADDRESS_SET;
    EXPECT_EQ(init(true, 9, [] { order("127.0.0.2"); }), (lines_and_seconds{3 + 5, 10 + 5}))
        << "three failures, and five workers told; taken at once";
    EXPECT_EQ(conn->order.server_address, INADDR_LOOPBACK + 1);
    text_copy(conn->order.domain, "no..name");
    gwa_connection_data_re_resolve(conn, 3);
    EXPECT_EQ(conn->order.server_address, INADDR_LOOPBACK + 1) << "a failure keeps the address";
}

}  // namespace
