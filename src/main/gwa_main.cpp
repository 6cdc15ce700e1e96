#include "main/gwa_main.h"

#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>

#include "connection/gwa_connection.h"
#include "connection/gwa_connection_cntl.h"
#include "connection/gwa_connection_cntl_command.h"
#include "connection/gwa_connection_data.h"
#include "login/gwa_login.h"
#include "login/gwa_login_discovery.h"
#include "login/gwa_login_handshake.h"
#include "main/gwa_args.h"
#include "main/gwa_log.h"
#include "main/gwa_restart.h"
#include "main/gwa_status.h"
#include "reporters/dlna_status.h"
#include "reporters/gwa_link.h"
#include "reporters/port_info.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_timer_list.h"
#include "runtime/gwa_util_time.h"

namespace {

constexpr uint32_t CHECK_INTERVAL_S = 30;
constexpr int RETRY_PAUSE_S = 10;

constexpr int NO_MONITOR = -1;  // a pass that ends the program; no jump has this code

gwa_timer* check_timer = nullptr;
bool logged_in = false;  // since the start or the last reinit: there is a connection to release

}  // namespace

// A restart leaves all descriptors closed. Whatever took the number of standard output or error
// next, a socket to the server for one, would get what is printed there.
static void standard_descriptors_open() {
    int fd = 0;
    do {
        fd = open("/dev/null", O_RDWR);
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd > STDERR_FILENO) {
        close(fd);
    }
}

// One pool of memory for all threads: with one each, what a bulk transfer leaves behind stays with
// its worker, megabytes that a small box would rather have back.
static void memory_pools_limit() {
#ifdef M_ARENA_MAX  // glibc's; others have no such pools
    mallopt(M_ARENA_MAX, 1);
#endif
}

static void check_timer_start() {
    if (gwa_timer_init(gwa_status_check, nullptr, CHECK_INTERVAL_S, GWA_TIMER_PERIODIC, nullptr,
                       &check_timer) != 0) {
        GWA_LOG(ERROR, "init check timer failed");
    }
    if (check_timer != nullptr && gwa_timer_start(check_timer) != 0) {
        GWA_LOG(ERROR, "start check timer failed");
    }
}

static void workers_order(const gwa_host_list& servers) {
    gwa_connection_data_order_all(&gwa_connections.data, servers);
}

static void login_answer_take(const char* text) {
    gwa_connection_cntl_remote_data_parse(&gwa_connections.cntl, text);
}

// Discovers the server, logs in and makes the control connection. False: not this time.
static bool supervisor_connect() {
    uint32_t address = 0;
    uint16_t port = 0;
    if (gwa_cntrl_ip_get(&address, &port) == -1 || address == 0 || port == 0) {
        return false;
    }
    gwa_connection_cntl& cntl = gwa_connections.cntl;
    const gwa_login_sink sink{&cntl.traffic, login_answer_take};
    const int fd = gwa_login_control(address, port, sink);
    if (fd == -1) {
        GWA_LOG(FATAL, "login server failed");
        return false;
    }
    logged_in = true;
    if (gwa_connection_cntl_init(&cntl, fd) != 0) {
        GWA_LOG(FATAL, "init connection failed");
        close(fd);
        return false;
    }
    return true;
}

// Has the reporters listen on the control poller. False: without the network monitor the daemon
// would not notice a new address, so the program ends.
static bool reporters_start() {
    gwa_connection_cntl* const cntl = &gwa_connections.cntl;
    if (gwa_link_start(cntl) != 0) {
        return false;
    }
    dlna_status_start(cntl);
    port_info_start(cntl);
    return true;
}

// One control connection from discovery to its end, or the pause after a failure. Hands back the
// jump that was asked for meanwhile, or NO_MONITOR.
static int supervisor_pass() {
    int asked = GWA_JUMP_NONE;
    if (supervisor_connect()) {
        if (!reporters_start()) {
            return NO_MONITOR;
        }
        asked = gwa_connection_cntl_manage(&gwa_connections.cntl);
    } else {
        gwa_sleep(RETRY_PAUSE_S);
    }
    const int waiting = gwa_process_jump.exchange(GWA_JUMP_NONE, std::memory_order_relaxed);
    return asked != GWA_JUMP_NONE ? asked : waiting;
}

// Passes until somebody jumps or the run flag is cleared.
static int supervisor_loop() {
    int asked = GWA_JUMP_NONE;
    while (asked == GWA_JUMP_NONE && gwa_process_running()) {
        asked = supervisor_pass();
    }
    return asked;
}

static void connection_release() {
    dlna_status_timers_stop();  // nothing may fire into a queue that is being emptied
    if (logged_in) {
        gwa_connection_cntl_exit(&gwa_connections.cntl);
        logged_in = false;
    }
}

// The restart point of the process, as a loop: what the passes hand back takes the place of a jump.
// True with the workers joined; false when the program has to end as it is.
static bool supervise() {
    GWA_LOG(PROGRESS, "set jump here");
    for (int asked = supervisor_loop(); asked != GWA_JUMP_NONE; asked = supervisor_loop()) {
        if (asked == NO_MONITOR) {
            return false;
        }
        GWA_LOG(PROGRESS, "long jump from %d here", asked);
        switch (asked) {
            case GWA_JUMP_REINIT:
                GWA_LOG(FATAL, "reinit now");
                connection_release();  // nothing of the old pass stays behind
                break;
            case GWA_JUMP_EXIT:
                GWA_LOG(FATAL, "exit process now");
                gwa_process_run.store(0, std::memory_order_relaxed);  // ends the workers' waits
                gwa_connection_all_destroy(&gwa_connections.data);
                return true;  // the process ends with the control connection as it is
            default: GWA_LOG(DEBUG, "unknown jump code %d", asked); GWA_EXIT(-1);
        }
    }
    gwa_connection_all_destroy(&gwa_connections.data);
    connection_release();
    return true;
}

[[noreturn]] static void teardown() {
    if (check_timer != nullptr) {
        gwa_timer_destroy(check_timer);
        free(check_timer);
        check_timer = nullptr;
    }
    dlna_status_timers_stop();  // before the list that they are on
    gwa_timer_default_exit();
    gwa_link_stop();
    dlna_status_exit();
    port_info_socket_exit();
    gwa_login_exit();
    gwa_log_close();
    gwa_process_exit(0);
}

int gwa_main(int argc, char* argv[]) {
    standard_descriptors_open();
    memory_pools_limit();
    gwa_restart_init(argv);
    args_parse(argc, argv);
    srand(static_cast<unsigned>(gwa_time_seconds()));
    gwa_now_start();
    if (gwa_timer_default_init() != 0) {
        GWA_LOG(ERROR, "init default timer list failed");
        gwa_log_close();
        return -1;
    }
    gwa_connection_table_init();
    gwa_connections.cntl.hooks.restart = gwa_restart;
    gwa_connections.cntl.hooks.order = workers_order;
    gwa_connection_data_init(&gwa_connections.data);
    check_timer_start();
    if (!supervise()) {
        return -1;
    }
    teardown();
}
