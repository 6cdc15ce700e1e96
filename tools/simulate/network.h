// network.h - the kernel as a simulated daemon meets it: TCP sockets whose other ends are ours,
// epoll sets, and calls that fail on purpose. calls.cpp brings every call of the daemon here.
//
// A socket holds what has arrived for the daemon and what the daemon has sent and the peer has not
// taken yet. Events are as epoll(7) has them for edge-triggered TCP, and no more generous: data
// that comes, room after a send that met none, an end, a reset. So an edge that the daemon forgets
// is lost.
//
// Numbers are given as a kernel does, the lowest that is free: who uses one that it has closed hits
// nothing, which ends the simulation, or somebody else's, which the models see.
#pragma once

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "link.h"

class byte_queue {  // first in, first out
   public:
    size_t size() const { return bytes.size() - at; }
    bool empty() const { return size() == 0; }
    std::string_view view() const { return std::string_view(bytes).substr(at); }
    void push(std::string_view more) { bytes += more; }
    void pop(size_t count) {
        at += count;
        if (at > 1 << 16 || at == bytes.size()) {
            bytes.erase(0, at);
            at = 0;
        }
    }
    void clear() { bytes.clear(), at = 0; }

   private:
    std::string bytes;
    size_t at = 0;
};

// What a call of the daemon is, to those who watch or have it fail.
enum class call : uint8_t {
    SOCKET,
    CONNECT,
    RECV,
    READV,
    SEND,
    SENDMSG,
    IOCTL,
    SETSOCKOPT,
    GETSOCKOPT,
    POLL,
    EPOLL_ADD,
    EPOLL_WAIT,
    CLOSE,
    MALLOC,
    COUNT
};
constexpr size_t CALL_COUNT = static_cast<size_t>(call::COUNT);

// How a port of the box takes a connection.
enum class port_kind : uint8_t {
    LISTENS,       // at once
    LISTENS_SOON,  // the second try finds it connected
    LISTENS_LATE,  // after two seconds
    REFUSES,
    REFUSES_LATE,  // after two seconds
    NEVER_ANSWERS,
    COUNT
};

struct poll_table;

struct tcp_socket {
    int fd = -1;
    enum class phase : uint8_t { NEW, CONNECTING, CONNECTED, REFUSED } phase = phase::NEW;
    port_kind port = port_kind::LISTENS;
    int64_t settled_us = 0;  // when a connect that is under way has its result

    byte_queue arrived;     // for the daemon
    size_t low_water = 1;   // SO_RCVLOWAT
    bool ended = false;     // FIN behind what has arrived
    bool read_end = false;  // and the daemon has met it
    // The daemon's last read, or asking for an event, failed on purpose: it has to look again.
    bool read_failed = false;
    byte_queue sent;             // by the daemon; the peer has not taken it yet
    size_t send_room = 1 << 17;  // of that
    bool wants_room = false;     // the daemon has met a full buffer: an event will tell of room
    int error = 0;               // to be told by the next call
    bool dead = false;           // reset: nothing goes any more
    tcp_link link;

    poll_table* table = nullptr;  // where it is registered
    void* data = nullptr;
    bool listed = false;  // among what the table has ready

    // What the peer does.
    void arrive(std::string_view bytes);
    void end();
    void reset(int reason);
    void link_change(bool to_silent);
    std::string take(size_t count);
    size_t receive_room() const;
    void widen();  // its send buffer, to what is usual
    // For how long its peer has owed an acknowledgement.
    int64_t unanswered_us() { return dead ? 0 : link.unanswered_us(!sent.empty()); }

    uint32_t ready() const;
    void kernel_turn();
    bool has_room() const { return sent.size() * 3 <= send_room * 2; }
    void wake();
};

struct poll_table {
    std::deque<tcp_socket*> ready;
};

// Who wants to know what the daemon does. `before` comes first with any call on a descriptor of
// ours; then, as far as it has been carried out, one of the others.
struct network_watcher {  // this one does not care
    virtual ~network_watcher() = default;
    virtual void before(call, tcp_socket*) {}
    virtual void opened(tcp_socket*) {}  // null: it has failed
    virtual void connected(tcp_socket&, bool /*success*/) {}
    // `wanted` is what it has asked for at most.
    virtual void received(tcp_socket&, size_t /*wanted*/, std::string_view, int /*error*/) {}
    // What the daemon has offered, and how much of it has been taken: -1 with an error.
    virtual void sent(tcp_socket&, std::string_view, ssize_t /*taken*/, int /*error*/) {}
    virtual void looked(tcp_socket&, int /*queued*/) {}
    virtual void info_failed() {}
    virtual void registered(tcp_socket&, bool /*success*/) {}
    virtual void closing(tcp_socket&) {}
    // Nothing is ready, and the daemon wants to wait that long.
    virtual void waits(int /*timeout_ms*/) {}
    virtual void wait_failed(int /*error*/) {}
};

struct network {
    static constexpr int FIRST_FD = 1 << 20;
    static constexpr uint16_t FIRST_PORT = 8000;  // and one for each kind

    network_watcher nobody;
    network_watcher* watcher = &nobody;
    size_t local_room = 1 << 17;  // send buffers of sockets that the daemon makes
    uint64_t events = 0;          // delivered so far

    struct failure {
        int error = 0;
        int after = 0;  // calls that still succeed
    };
    std::array<failure, CALL_COUNT> failures;

    // A call is to fail, after so many that succeed.
    void fail(int64_t what, int64_t error, int64_t after);
    // Whether this one is to fail now: errno says why.
    bool fails(call what);
    // What ends the daemon by design is tried by a copy of this process, until the schedule or the
    // daemon ends: this is it.
    bool is_apart = false;
    // A connected socket that the daemon is handed, as after a login.
    tcp_socket& login_socket(size_t send_room);
    // How many descriptors the daemon holds.
    size_t open_count() const;

    // The calls. Results and errno as a kernel's.
    int socket_make();
    int connect_to(int fd, uint16_t port);
    int connect_settle(int fd, int timeout_ms);  // poll(2) for writing
    ssize_t receive(int fd, const iovec* pieces, size_t count, call what);
    ssize_t send_all(int fd, const iovec* pieces, size_t count, call what);
    int queued(int fd, int* count);
    int low_water_set(int fd, int bytes);
    int option_set(int fd);
    int info(int fd, tcp_info* out);
    int table_make();
    int table_change(int epfd, int operation, int fd, epoll_event* event);
    int table_wait(int epfd, epoll_event* out, int count, int timeout_ms);
    int wait_readable(int fd, int timeout_ms);
    int close_fd(int fd);

    static bool is_ours(int fd) { return fd >= FIRST_FD; }

   private:
    struct descriptor {
        std::unique_ptr<tcp_socket> socket;
        std::unique_ptr<poll_table> table;
    };
    std::vector<descriptor> descriptors;

    descriptor& make();
    descriptor& at(int fd, const char* what);
    tcp_socket& socket_at(int fd, const char* what);
};
extern network the_network;

// The clock of the simulation.
struct virtual_time {
    int64_t now_us = 0;
    int64_t set_us = 0;  // by how much the wall clock has been set
    // What happens while the daemon waits: looked at before the time passes.
    std::function<void()> meanwhile = nullptr;
    void pass(int64_t us);  // the coarse clock follows
    void sleep(int64_t us);
};
extern virtual_time the_time;
constexpr int64_t START_S = INT32_MAX - 300;  // the coarse clock wraps in most schedules

// Blocks of memory that the daemon holds.
extern int64_t memory_blocks;

// Ends the run: something does not hold.
[[noreturn]] void broken(const char* format, ...) __attribute__((format(printf, 1, 2)));
