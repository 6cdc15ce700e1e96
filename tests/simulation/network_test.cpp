// The kernel of the simulation beside the real one: the same story, told to a TCP connection of
// each. Where they differ, the simulation would pass what the real kernel makes hang, or the
// reverse.
#include "network.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>

#include <functional>

#include "support/eventually.h"
#include "support/sockets.h"

void broken(const char* format, ...) {
    ADD_FAILURE() << format;
    abort();
}

namespace {

// What the daemon may do with a connection that its poller watches, and its peer.
struct connection {
    virtual ~connection() = default;
    // What has become ready since the last look, waiting for it that long.
    virtual uint32_t events(int wait_ms) = 0;
    virtual ssize_t receive(size_t most) = 0;
    virtual ssize_t send_much() = 0;
    // What TCP_INFO tells when everything under way is acknowledged: whether bytes are not, whether
    // the connection is closed.
    virtual std::pair<bool, bool> info() = 0;
    virtual void low_water(int bytes) = 0;
    virtual void rearm() = 0;
    virtual void peer_says(const std::string& text) = 0;
    virtual void peer_reads_all() = 0;
    virtual void peer_ends() = 0;
    virtual void peer_resets() = 0;
};

constexpr int PATIENCE_MS = 5000;
constexpr int SILENCE_MS = 10;
const std::string MUCH(1 << 20, 'm');

struct real_connection : connection {
    unique_fd ours, peer;
    unique_fd poller{epoll_create1(EPOLL_CLOEXEC)};

    real_connection() {
        const loopback_listener listener;
        ours = loopback_connect(listener.port);
        peer = listener.accept();
        fcntl(ours.get(), F_SETFL, O_NONBLOCK);
        change(EPOLL_CTL_ADD);
    }
    void change(int operation) const {
        epoll_event wanted{};
        wanted.events = EPOLLIN | EPOLLOUT | EPOLLET;
        epoll_ctl(poller.get(), operation, ours.get(), &wanted);
    }
    uint32_t events(int wait_ms) override {
        epoll_event found{};
        return epoll_wait(poller.get(), &found, 1, wait_ms) == 1 ? found.events : 0;
    }
    ssize_t receive(size_t most) override {
        std::string buffer(most, '\0');
        return recv(ours.get(), buffer.data(), most, 0);
    }
    ssize_t send_much() override {
        return send(ours.get(), MUCH.data(), MUCH.size(), MSG_NOSIGNAL);
    }
    std::pair<bool, bool> info() override {
        tcp_info told{};
        eventually([&] {
            socklen_t size = sizeof told;
            getsockopt(ours.get(), IPPROTO_TCP, TCP_INFO, &told, &size);
            return told.tcpi_unacked == 0;
        });
        return {told.tcpi_unacked > 0, told.tcpi_state == TCP_CLOSE};
    }
    void low_water(int bytes) override {
        setsockopt(ours.get(), SOL_SOCKET, SO_RCVLOWAT, &bytes, sizeof bytes);
    }
    void rearm() override { change(EPOLL_CTL_MOD); }
    void peer_says(const std::string& text) override { write_all(peer.get(), text); }
    void peer_reads_all() override { read_to_end(peer.get(), test_duration{50}); }
    void peer_ends() override { shutdown(peer.get(), SHUT_WR); }
    void peer_resets() override {
        const linger at_once{1, 0};
        setsockopt(peer.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        peer.reset();
    }
};

struct simulated_connection : connection {
    tcp_socket& socket = the_network.login_socket(1 << 17);
    int poller = the_network.table_make();

    simulated_connection() { change(EPOLL_CTL_ADD); }
    ~simulated_connection() override {
        the_network.table_change(poller, EPOLL_CTL_DEL, socket.fd, nullptr);
        the_network.close_fd(socket.fd);
        the_network.close_fd(poller);
    }
    void change(int operation) const {
        epoll_event wanted{};
        the_network.table_change(poller, operation, socket.fd, &wanted);
    }
    uint32_t events(int) override {
        epoll_event found{};
        return the_network.table_wait(poller, &found, 1, 0) == 1 ? found.events : 0;
    }
    ssize_t receive(size_t most) override {
        std::string buffer(most, '\0');
        const iovec piece{buffer.data(), most};
        return the_network.receive(socket.fd, &piece, 1, call::RECV);
    }
    ssize_t send_much() override {
        const iovec piece{const_cast<char*>(MUCH.data()), MUCH.size()};
        return the_network.send_all(socket.fd, &piece, 1, call::SEND);
    }
    std::pair<bool, bool> info() override {
        the_time.pass(1'000'000);
        tcp_info told{};
        the_network.info(socket.fd, &told);
        return {told.tcpi_unacked > 0, told.tcpi_state == TCP_CLOSE};
    }
    void low_water(int bytes) override { the_network.low_water_set(socket.fd, bytes); }
    void rearm() override { change(EPOLL_CTL_MOD); }
    void peer_says(const std::string& text) override { socket.arrive(text); }
    void peer_reads_all() override { socket.take(SIZE_MAX); }
    void peer_ends() override { socket.end(); }
    void peer_resets() override { socket.reset(ECONNRESET); }
};

// The same is done to both; what it shows must be equal.
struct SimulatedKernel : testing::Test {
    real_connection real;
    simulated_connection simulated;

    void both(const std::function<void(connection&)>& act, const char* what) {
        act(real);
        act(simulated);
        const uint32_t expected = simulated.events(0);
        EXPECT_EQ(real.events(expected != 0 ? PATIENCE_MS : SILENCE_MS), expected) << what;
        EXPECT_EQ(real.events(SILENCE_MS), 0U) << what << ": once";
        EXPECT_EQ(simulated.events(0), 0U) << what << ": once";
    }
    void both_give(const std::function<ssize_t(connection&)>& act, const char* what) {
        const auto told = [&](connection& one) {
            const ssize_t count = act(one);
            return std::pair(count, count == -1 ? errno : 0);
        };
        EXPECT_EQ(told(real), told(simulated)) << what;
    }
};

TEST_F(SimulatedKernel, TellsOfWhatComes) {
    both([](connection&) {}, "registered");
    both([](connection& one) { one.peer_says("abc"); }, "the first bytes");
    both([](connection& one) { one.peer_says("de"); }, "more, while the first are not read");
    both_give([](connection& one) { return one.receive(4); }, "a part of them");
    both([](connection&) {}, "a rest is no event");
    both([](connection& one) { one.rearm(); }, "unless it is asked for");
    both_give([](connection& one) { return one.receive(4); }, "the rest");
    both_give([](connection& one) { return one.receive(4); }, "nothing");
    both([](connection& one) { one.low_water(16); }, "a low-water mark");
    both([](connection& one) { one.peer_says("short"); }, "less than the mark");
    both([](connection& one) { one.low_water(5); }, "a lower mark");
    both_give([](connection& one) { return one.receive(9); }, "less than was asked for");
    both([](connection& one) { one.peer_ends(); }, "the end");
    both_give([](connection& one) { return one.receive(9); }, "at the end");
}

TEST_F(SimulatedKernel, TellsOfRoomOnceItWasMissed) {
    both([](connection&) {}, "registered");
    const auto fill = [](connection& one) {
        while (one.send_much() > 0) {
        }
    };
    both(fill, "a full buffer");
    both(fill, "full again, should a part of it have left");
    both([](connection& one) { one.peer_says("x"); }, "something else happens");
    both_give([](connection& one) { return one.receive(9); }, "something else");
    both([](connection& one) { one.peer_reads_all(); }, "room");
    both([](connection& one) { one.rearm(); }, "asked for again");
    both([](connection& one) { one.peer_reads_all(); }, "room that nobody has missed");
}

TEST_F(SimulatedKernel, KnowsAPeerThatDoesNotReadFromOneThatIsGone) {
    EXPECT_EQ(real.info(), simulated.info()) << "idle";
    real.send_much();
    simulated.send_much();
    EXPECT_EQ(real.info(), simulated.info()) << "nobody reads, but the kernel of the peer is there";
    simulated.socket.link_change(true);
    EXPECT_EQ(simulated.info(), std::pair(false, false)) << "silent, behind a shut window";
    simulated.socket.link_change(false);
    simulated.peer_reads_all();
    simulated.socket.link_change(true);
    simulated.send_much();
    EXPECT_EQ(simulated.info(), std::pair(true, false)) << "silent";
    real.peer_resets();
    simulated.peer_resets();
    EXPECT_EQ(real.info(), simulated.info()) << "gone";
}

TEST_F(SimulatedKernel, TellsOfAReset) {
    both([](connection&) {}, "registered");
    both([](connection& one) { one.peer_resets(); }, "a reset");
    both_give([](connection& one) { return one.receive(9); }, "the reason, once");
    both_give([](connection& one) { return one.receive(9); }, "then the end");
    both_give([](connection& one) { return one.send_much(); }, "nobody takes anything");
}

}  // namespace
