#include "reporters/dlna_status.h"

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "main/gwa_log.h"
#include "reporters/dlna_client.h"
#include "reporters/dlna_status_socket.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_timer.h"
#include "runtime/gwa_util_time.h"

namespace {

// After as many the main thread has other things to do. No more accepts than there is room for, so
// that each client is listened to once before it may have to give way.
constexpr int ACCEPTS_PER_EVENT = DLNA_CLIENTS_MAX;
constexpr uint32_t NO_WORD = UINT32_MAX;
constexpr int T1_PAUSE_US = 200000;

// Atomic is what both threads use. Status and t1_active are accessed in one order for both, so that
// a new word is either seen by the timer that fires or arms another one.
struct dlna_status_record {
    int listen_socket = -1;
    std::atomic<uint32_t> status{0};      // the last word received
    std::atomic<int32_t> last_report{0};  // time of the last timed report; 0 until the first word
    int32_t received = 0;                 // time of the last word
    uint32_t t1 = DLNA_T1_DEFAULT;
    uint32_t t2 = DLNA_T2_DEFAULT;
    gwa_timer* t1_timer = nullptr;
    std::atomic<int32_t> t1_active{0};  // 1 while the timer is pending
    gwa_timer* t2_timer = nullptr;
    int32_t t2_active = 0;
};

dlna_status_record dlna_status;
dlna_client_pool pool;
gwa_connection_cntl* dlna_cntl = nullptr;  // reported to

}  // namespace

static int32_t time_now() { return static_cast<int32_t>(gwa_time_seconds()); }

static void timer_end(gwa_timer** timer) {
    if (*timer != nullptr) {
        gwa_timer_destroy(*timer);  // waits for its callback
        free(*timer);
        *timer = nullptr;
    }
}

void dlna_status_timers_stop() {
    timer_end(&dlna_status.t1_timer);
    timer_end(&dlna_status.t2_timer);
    dlna_status.t1_active.store(0);
    dlna_status.t2_active = 0;
}

static void listen_socket_close() {
    if (dlna_status.listen_socket != -1) {
        close(dlna_status.listen_socket);
        dlna_status.listen_socket = -1;
    }
}

static void record_reset() {
    dlna_status_timers_stop();
    listen_socket_close();
    dlna_status.status.store(0);
    dlna_status.last_report.store(0, std::memory_order_relaxed);
    dlna_status.received = 0;
    dlna_status.t1 = DLNA_T1_DEFAULT;
    dlna_status.t2 = DLNA_T2_DEFAULT;
    pool = {};  // the poller of the earlier pass has closed its clients
}

int dlna_status_init() {
    record_reset();
    dlna_status.listen_socket = dlna_status_socket_open();
    return dlna_status.listen_socket;
}

void dlna_status_start(gwa_connection_cntl* cntl) {
    dlna_cntl = cntl;
    if (dlna_status_init() == -1) {
        GWA_LOG(ERROR, "dlna status init failed");
    } else if (poll_add(&cntl->poller, dlna_status.listen_socket, dlna_status_accept_handle,
                        &cntl->poller, &dlna_status.listen_socket) != 0) {
        GWA_LOG(ERROR, "add dlna listen socket to poll failed");
    }
    cntl->hooks.reporting_times = dlna_status_interval_set;
}

int dlna_status_exit() {
    listen_socket_close();
    dlna_status_timers_stop();
    return dlna_status_socket_remove();
}

// Takes one client in. False: the handler ends.
static bool client_begin(int fd) {
    GWA_LOG(INFO, "new connection accept success, fd %d", fd);
    if (dlna_client_begin(&pool, fd, dlna_status_recv_handle) != 0) {
        GWA_LOG(ERROR, "add dlna socket to poll failed");
        return false;
    }
    return true;
}

static void accept_failed(int error) {
    if (error != EAGAIN) {
        GWA_LOG(ERROR, "accept failed, %s, fd %d", strerror(error), dlna_status.listen_socket);
    }
    if (error == ENOTSOCK) {
        GWA_EXIT(1);
    }
}

void dlna_status_accept_handle(uint32_t events, void* poller) {
    if ((events & EPOLLIN) == 0) {
        return;
    }
    GWA_LOG(INFO, "accept connection ...");
    pool.poller = static_cast<poll_set*>(poller);
    for (int accepted = 0; accepted < ACCEPTS_PER_EVENT; accepted++) {
        const int fd = accept4(dlna_status.listen_socket, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd == -1) {
            accept_failed(errno);
            return;
        }
        if (!client_begin(fd)) {
            return;
        }
    }
    poll_rearm(pool.poller, dlna_status.listen_socket);
}

static int report_timer_make(void (*callback)(void*), uint32_t interval, uint32_t mode,
                             gwa_timer** timer) {
    if (gwa_timer_init(callback, nullptr, interval, mode, nullptr, timer) != 0) {
        GWA_LOG(ERROR, "init timer failed");
        return -1;
    }
    return 0;
}

static int timer_arm(gwa_timer** timer) {
    if (gwa_timer_start(*timer) != 0) {
        GWA_LOG(ERROR, "start timer failed");
        timer_end(timer);
        return -1;
    }
    return 0;
}

// A word that comes between the report and the end of this function finds the timer still pending
// and relies on it. So the status is looked at once more after that: whoever of the two threads
// claims the timer then, arms it again.
static void dlna_status_timer_t1_handle(void*) {
    GWA_LOG(INFO, "t1 timer expired");
    const uint32_t reported = dlna_status.status.load();
    dlna_status_report(reported);
    dlna_status.last_report.store(time_now(), std::memory_order_relaxed);
    dlna_status.t1_active.store(0);
    if (dlna_status.status.load() != reported && dlna_status.t1_active.exchange(1) == 0) {
        gwa_timer_start(dlna_status.t1_timer);
    }
}

static void dlna_status_timer_t2_handle(void*) {
    GWA_LOG(INFO, "t2 timer expired");
    dlna_status_report(dlna_status.status.load());
}

// The caller has claimed the timer by setting it active.
static void dlna_status_timer_t1_start() {
    gwa_usleep(T1_PAUSE_US);
    GWA_LOG(DEBUG, "now t1 is stopped");
    timer_end(&dlna_status.t1_timer);
    GWA_LOG(INFO, "create a t1 timer");
    if (report_timer_make(dlna_status_timer_t1_handle, dlna_status.t1, GWA_TIMER_ONCE,
                          &dlna_status.t1_timer) != 0) {
        dlna_status.t1_active.store(0);
        return;
    }
    GWA_LOG(INFO, "start a t1 timer");
    if (timer_arm(&dlna_status.t1_timer) != 0) {
        dlna_status.t1_active.store(0);
        return;
    }
    GWA_LOG(INFO, "start t1 timer success");
}

static int dlna_status_timer_t2_start() {
    if (dlna_status.t2_active != 0) {
        timer_end(&dlna_status.t2_timer);
        dlna_status.t2_active = 0;
    }
    GWA_LOG(INFO, "create a t2 timer");
    if (report_timer_make(dlna_status_timer_t2_handle, dlna_status.t2, GWA_TIMER_PERIODIC,
                          &dlna_status.t2_timer) != 0) {
        return -1;
    }
    GWA_LOG(INFO, "start a t2 timer");
    if (timer_arm(&dlna_status.t2_timer) != 0) {
        return -1;
    }
    dlna_status.t2_active = 1;
    GWA_LOG(INFO, "start t2 timer success");
    return 0;
}

// Decides when a word is reported.
static void word_take(uint32_t word) {
    dlna_status.status.store(word);
    dlna_status.received = time_now();
    GWA_LOG(INFO, "recv dlna status 0x%x", word);
    const int32_t last_report = dlna_status.last_report.load(std::memory_order_relaxed);
    if (last_report == 0) {
        dlna_status.last_report.store(dlna_status.received, std::memory_order_relaxed);
        GWA_LOG(INFO, "first time, report status");
        dlna_status_report(word);
        dlna_status_timer_t2_start();
    } else if (gwa_moment_before(dlna_status.received, last_report) >
               static_cast<int32_t>(dlna_status.t1)) {
        dlna_status_report(word);  // oddity 28: not a timed report
    } else if (dlna_status.t1_active.exchange(1) == 0) {
        dlna_status_timer_t1_start();
    }
}

void dlna_status_recv_handle(uint32_t events, void* argument) {
    if ((events & EPOLLIN) == 0) {
        return;
    }
    const int fd = static_cast<int>(reinterpret_cast<intptr_t>(argument));
    dlna_client* const client = dlna_client_heard(&pool, fd);
    if (client == nullptr) {
        return;  // it has given way
    }
    uint32_t word = NO_WORD;
    const dlna_read result = dlna_client_words_read(client, &word);
    switch (result) {
        case dlna_read::NOTHING: break;
        case dlna_read::MORE: poll_rearm(pool.poller, fd); break;
        case dlna_read::FAILED:
            GWA_LOG(ERROR, "recv error, %s", strerror(errno));
            dlna_client_end(&pool, client);  // no event would come for it any more
            break;
        case dlna_read::CLOSED:
            GWA_LOG(INFO, "recv return 0, del it from the set");
            dlna_client_end(&pool, client);
            break;
    }
    if (word != NO_WORD) {
        word_take(word);  // exception 43: also of a client that has sent it and left
    } else if (result != dlna_read::CLOSED) {
        GWA_LOG(ERROR, "recv status is -1");
    }
}

int dlna_status_report(uint32_t status) {
    GWA_LOG(INFO, "report dlna status 0x%x", status);
    gwa_output_node* const node =
        gwa_connection_frame_new(gwa_command::REPORT_STATUS, GWA_FLAG_COMMAND, 0, sizeof status);
    store_be32(gwa_connection_payload_of(node), status);
    gwa_connection_cntl_report(dlna_cntl, node);
    return 0;
}

int dlna_status_interval_set(uint32_t t1, uint32_t t2) {
    GWA_LOG(INFO, "set interval to t1 %u t2 %u", t1, t2);
    if (t1 < DLNA_T1_MIN || t1 > DLNA_T1_MAX || t2 < DLNA_T2_DEFAULT) {
        GWA_LOG(ERROR,
                "t1 or t2 is error t1 = %u t2 = %u (default is t1 min %u default %u t2 default %u)",
                t1, t2, DLNA_T1_MIN, DLNA_T1_DEFAULT, DLNA_T2_DEFAULT);
        return -1;
    }
    dlna_status.t1 = t1;
    if (t2 != dlna_status.t2) {
        dlna_status.t2 = t2;
        if (dlna_status.t2_active != 0) {
            dlna_status_timer_t2_start();  // so that the new period counts from now on
        }
    }
    return 0;
}
