#include "main/gwa_status.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "connection/gwa_connection.h"
#include "runtime/gwa_process.h"
#include "support/child.h"

namespace {

constexpr int NOBODY = GWA_DATA_CONNECTIONS, CNTL = -1;

// Runs the check as often as said, with traffic on all connections but one, which falls silent
// after the run of that number.
void checks_run(int runs, int silent, int last_heard) {
    for (int run = 1; run <= runs; ++run) {
        gwa_status_check(nullptr);
        for (int id = CNTL; id < GWA_DATA_CONNECTIONS; ++id) {
            gwa_traffic& traffic =
                id == CNTL ? gwa_connections.cntl.traffic : gwa_connections.data[id].traffic;
            gwa_counter_add(traffic.bytes_in, id == silent && run >= last_heard ? 0 : 16);
        }
    }
}

}  // namespace

TEST(Status, WritesTheTable) {
    temp_dir home;
    mkdir((home.path + "/tmp").c_str(), 0700);
    child program([&] {
        gwa_process_paths_init(home.path.c_str());
        gwa_connection_table_init();
        gwa_traffic& cntl = gwa_connections.cntl.traffic;
        gwa_counter_add(cntl.bytes_in, 1536);
        gwa_counter_add(cntl.packets_in, 12);
        gwa_counter_add(cntl.bytes_out, 1023);
        cntl.packets_out.high.store(1);
        gwa_connections.cntl.send_level.store(5);
        gwa_connection_data& last = gwa_connections.data[4];
        last.traffic.bytes_in.high.store(1);
        last.output.send_level.store(2);
        last.memory.store(8192);
        last.output.count.store(7);
        last.streams.count.store(3);
        gwa_status_check(nullptr);
    });
    EXPECT_EQ(program.wait(), child::RETURNED);
    const std::string separator =
        "+----+----------+----------+----------+----------+------+--------+--------+--------+\n";
    const std::string first =
        "> \n+----+---------------------+---------------------+------+--------+--------+--------+\n"
        "| id | in (Byte   Packet)  | out (Byte  Packet)  | stat | memory | buffer | stream |\n" +
        separator +
        "| c0 |    1.500K|        12|      1023|4294967296|     5|        |        |        |\n" +
        separator +
        "| d0 |         0|         0|         0|         0|     0|       0|       0|       0|\n";
    const std::string last =
        "| d4 |    4.000G|         0|         0|         0|     2|  8.000K|       7|       3|\n" +
        separator;
    const std::string written = file_read(home.path + "/tmp/gwad.stat");
    EXPECT_TRUE(written.starts_with("time : <")) << written;
    EXPECT_NE(written.find(first), std::string::npos) << written;
    EXPECT_TRUE(written.ends_with(last)) << written;
}

TEST(Status, RestartsOnEveryEleventhRunWhenAnyConnectionIsSilent) {
    const struct {
        int runs, silent, last_heard, running;
        const char* named;  // in the line about the restart; empty: there is none
    } cases[] = {
        {25, NOBODY, 0, 1, ""},
        {11, CNTL, 0, 1, ""},
        {25, CNTL, 0, 0, ""},  // told to stop: silence is as it should be
        {12, CNTL, 0, 1, "cntl"},
        {12, 0, 0, 1, "0"},
        {12, 4, 0, 1, "4"},
        // Heard until the comparison of run 12: the next one is that of run 23.
        {22, 2, 12, 1, ""},
        {23, 2, 12, 1, "2"},
        {23, CNTL, 12, 1, "cntl"},
        {33, 2, 13, 1, ""},
    };
    for (const auto& with : cases) {
        child program([&] {
            gwa_connection_table_init();
            gwa_log_level_set(GWA_LEVEL_FATAL);
            gwa_process_paths_init("/no/home");  // without its file the check runs all the same
            gwa_process_run = with.running;
            checks_run(with.runs, with.silent, with.last_heard);
        });
        const bool restarts = *with.named != '\0';
        EXPECT_EQ(program.wait(), restarts ? 0 : child::RETURNED);
        const std::string line =
            "<0> in pkts not update too long, conn " + std::string(with.named) + "\n";
        EXPECT_EQ(program.errors().find(line) != std::string::npos, restarts) << program.errors();
    }
}
