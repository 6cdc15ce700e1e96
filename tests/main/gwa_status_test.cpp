#include "main/gwa_status.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "connection/gwa_connection.h"
#include "runtime/gwa_process.h"
#include "support/child.h"

namespace {

gwa_counter& bytes_in(int connection) {  // -1: the control connection
    return connection == -1 ? gwa_connections.cntl.traffic.bytes_in
                            : gwa_connections.data[connection].traffic.bytes_in;
}

constexpr int NOBODY = GWA_DATA_CONNECTIONS;

// Runs the check as often as said, with traffic on all connections but one, which falls silent
// after the run of that number.
void checks_run(int runs, int silent, int last_heard) {
    for (int run = 1; run <= runs; ++run) {
        gwa_status_check(nullptr);
        for (int id = -1; id < GWA_DATA_CONNECTIONS; ++id) {
            gwa_counter_add(bytes_in(id), id == silent && run >= last_heard ? 0 : 16);
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
        gwa_log_level_set(GWA_LEVEL_PROGRESS);
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
        "+----+---------------------+---------------------+------+--------+--------+--------+\n"
        "| id | in (Byte   Packet)  | out (Byte  Packet)  | stat | memory | buffer | stream |\n" +
        separator +
        "| c0 |    1.500K|        12|      1023|4294967296|     5|        |        |        |\n" +
        separator +
        "| d0 |         0|         0|         0|         0|     0|       0|       0|       0|\n";
    const std::string last =
        "| d4 |    4.000G|         0|         0|         0|     2|  8.000K|       7|       3|\n" +
        separator;
    const std::string written = file_read(home.path + "/tmp/gwad.stat");
    const size_t line_end = written.find('\n');
    EXPECT_EQ(written.substr(0, 8), "time : <");
    EXPECT_EQ(written.substr(line_end - 2, 2), "> ");
    EXPECT_EQ(written.substr(line_end + 1, first.size()), first);
    EXPECT_EQ(written.substr(written.size() - last.size()), last);
    const std::string logged =
        "<1> offset = " + std::to_string(written.size()) + ", \n" + written + "\n";
    EXPECT_NE(program.errors().find(logged), std::string::npos) << program.errors();
}

TEST(Status, RestartsOnEveryEleventhRunWhenAnyConnectionIsSilent) {
    const struct {
        int runs, silent, last_heard, running, status;
        const char* logged;
    } cases[] = {
        {25, NOBODY, 0, 1, child::RETURNED, ""},
        {11, -1, 0, 1, child::RETURNED, ""},
        {25, -1, 0, 0, child::RETURNED, ""},  // told to stop: silence is as it should be
        {12, -1, 0, 1, 0, "<0> in pkts not update too long, conn cntl\n"},
        {12, 0, 0, 1, 0, "<0> in pkts not update too long, conn 0\n"},
        {12, 4, 0, 1, 0, "<0> in pkts not update too long, conn 4\n"},
        // Heard until the comparison of run 12: the next one is that of run 23.
        {22, 2, 12, 1, child::RETURNED, ""},
        {23, 2, 12, 1, 0, "<0> in pkts not update too long, conn 2\n"},
        {23, -1, 12, 1, 0, "<0> in pkts not update too long, conn cntl\n"},
        {33, 2, 13, 1, child::RETURNED, ""},
        {34, 2, 13, 1, 0, "<0> in pkts not update too long, conn 2\n"},
    };
    for (const auto& with : cases) {
        child program([&] {
            gwa_connection_table_init();
            gwa_log_level_set(GWA_LEVEL_FATAL);
            gwa_process_paths_init("/no/home");  // without its file the check runs all the same
            gwa_process_run.store(with.running);
            checks_run(with.runs, with.silent, with.last_heard);
        });
        EXPECT_EQ(program.wait(), with.status);
        const std::string errors = program.errors();
        EXPECT_NE(errors.find(with.logged), std::string::npos) << errors;
        EXPECT_EQ(errors.find("<0>  !!!! restart the process !!!!\n") != std::string::npos,
                  with.status == 0);
    }
}
