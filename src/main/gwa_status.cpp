#include "main/gwa_status.h"

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <ctime>

#include "connection/gwa_connection.h"
#include "main/gwa_log.h"
#include "main/gwa_restart.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_scoped_fd.h"
#include "runtime/gwa_types.h"
#include "runtime/gwa_util_file.h"
#include "runtime/gwa_util_text.h"

namespace {

constexpr size_t STATUS_SIZE = 2048;  // bytes of the table, terminator included
constexpr size_t STAMP_SIZE = 64;
constexpr size_t FIGURE_SIZE = 32;     // a formatted byte count
constexpr int32_t COMPARE_AFTER = 10;  // runs counted before the one that compares

// The first line does not line up with the third: oddity 17.
constexpr char HEADER[] =
    "+----+---------------------+---------------------+------+--------+--------+--------+\n"
    "| id | in (Byte   Packet)  | out (Byte  Packet)  | stat | memory | buffer | stream |\n";
constexpr char SEPARATOR[] =
    "+----+----------+----------+----------+----------+------+--------+--------+--------+\n";

struct status_text {
    char text[STATUS_SIZE] = "";
    size_t length = 0;  // always below the size: what does not fit is cut
};

// The timer thread's own. The bytes received, as they were at the last comparison.
int32_t run_counter = -1;
uint64_t cntl_bytes_in = 0;
uint64_t data_bytes_in[GWA_DATA_CONNECTIONS] = {};

}  // namespace

__attribute__((format(printf, 2, 3))) static void append(status_text& to, const char* format, ...) {
    const size_t left = sizeof to.text - to.length;
    va_list arguments;
    va_start(arguments, format);
    const int wanted = vsnprintf(to.text + to.length, left, format, arguments);
    va_end(arguments);
    if (wanted > 0) {
        to.length += std::min(static_cast<size_t>(wanted), left - 1);
    }
}

static void append_time(status_text& to) {
    char stamp[STAMP_SIZE] = "";
    const time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    strftime(stamp, sizeof stamp, "<%Y-%m-%d %H:%M:%S> ", &local);
    append(to, "time : %s\n", stamp);
}

static void append_flow(status_text& to, const gwa_counter& bytes, const gwa_counter& packets) {
    char figure[FIGURE_SIZE] = "";
    append(to, "|%10s|%10llu", gwa_size_format(gwa_counter_get(bytes), figure, sizeof figure),
           static_cast<unsigned long long>(gwa_counter_get(packets)));
}

static void append_traffic(status_text& to, const gwa_traffic& traffic) {
    append_flow(to, traffic.bytes_in, traffic.packets_in);
    append_flow(to, traffic.bytes_out, traffic.packets_out);
}

static void append_cntl(status_text& to, const gwa_connection_cntl& cntl) {
    append(to, "| c0 ");
    append_traffic(to, cntl.traffic);
    append(to, "|%6d", cntl.send_level.load(std::memory_order_relaxed));
    append(to, "|%8s", "");
    append(to, "|%8s|%8s|\n", "", "");
}

static void append_data(status_text& to, int id, const gwa_connection_data& conn) {
    char figure[FIGURE_SIZE] = "";
    append(to, "| d%d ", id);
    append_traffic(to, conn.traffic);
    append(to, "|%6d", conn.output.send_level.load(std::memory_order_relaxed));
    append(to, "|%8s", gwa_size_format(gwa_connection_memory(&conn), figure, sizeof figure));
    append(to, "|%8d|%8d|\n", static_cast<int>(conn.output.count.load(std::memory_order_relaxed)),
           conn.streams.count.load(std::memory_order_relaxed));
}

static void status_build(status_text& to) {
    append_time(to);
    append(to, "%s%s", HEADER, SEPARATOR);
    append_cntl(to, gwa_connections.cntl);
    append(to, "%s", SEPARATOR);
    for (int id = 0; id < GWA_DATA_CONNECTIONS; ++id) {
        append_data(to, id, gwa_connections.data[id]);
        append(to, "%s", SEPARATOR);
    }
}

// Silent when the file cannot be made: the table is in the log as well.
static void status_write(const status_text& from) {
    const scoped_fd file(gwa_file_replace(gwa_process_paths.status_file));
    [[maybe_unused]] const ssize_t written = write(file.fd, from.text, from.length);
}

static void snapshots_take() {
    cntl_bytes_in = gwa_counter_get(gwa_connections.cntl.traffic.bytes_in);
    for (int id = 0; id < GWA_DATA_CONNECTIONS; ++id) {
        data_bytes_in[id] = gwa_counter_get(gwa_connections.data[id].traffic.bytes_in);
    }
}

// Oddity 18: a data connection that was never used counts too. The server keeps every one of the
// five alive with heartbeats, so one that stays silent is one that it has lost.
static void stall_find() {
    if (gwa_counter_get(gwa_connections.cntl.traffic.bytes_in) == cntl_bytes_in) {
        GWA_LOG(FATAL, "in pkts not update too long, conn cntl");
        gwa_restart();
    }
    for (int id = 0; id < GWA_DATA_CONNECTIONS; ++id) {
        if (gwa_counter_get(gwa_connections.data[id].traffic.bytes_in) == data_bytes_in[id]) {
            GWA_LOG(FATAL, "in pkts not update too long, conn %d", id);
            gwa_restart();
        }
    }
}

static void stall_check() {
    if (!gwa_process_running()) {
        return;  // told to stop: silence is as it should be, and nothing may start us again
    }
    if (run_counter == -1) {
        snapshots_take();
        run_counter = 0;
    } else if (run_counter < COMPARE_AFTER) {
        ++run_counter;
    } else {
        run_counter = 0;
        stall_find();
        snapshots_take();
    }
}

void gwa_status_check(void* /*argument*/) {
    status_text status;
    status_build(status);
    GWA_LOG(PROGRESS, "offset = %d, \n%s", static_cast<int>(status.length), status.text);
    status_write(status);
    stall_check();
}
