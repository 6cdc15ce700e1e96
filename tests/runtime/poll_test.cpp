#include "runtime/poll.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <functional>

#include "support/log_of.h"
#include "support/socket_pair.h"

namespace {

struct watch {  // what a callback saw, and what it does
    int calls = 0;
    uint32_t events = 0;
    std::function<void()> action = [] {};
};

struct silent_pipe {  // a reading end whose hang-up comes alone, with no readable bit
    int both[2] = {-1, -1};
    silent_pipe() { EXPECT_EQ(pipe2(both, O_CLOEXEC | O_NONBLOCK), 0); }
    void hang_up() { close(both[1]); }
};

class Poll : public testing::Test {
   protected:
    Poll() {
        EXPECT_EQ(poll_init(&set), 0);
        set.timeout = POLL_TIMEOUT_MAX;  // nothing here waits that long
    }
    ~Poll() override { poll_exit(&set); }
    int add(int& fd, watch& watcher) {
        const auto callback = [](uint32_t events, void* argument) {
            auto* watched = static_cast<watch*>(argument);
            watched->calls++;
            watched->events = events;
            watched->action();
        };
        return poll_add(&set, fd, callback, &watcher, &fd);
    }
    static bool is_open(int fd) { return fcntl(fd, F_GETFD) != -1; }

    socket_pair one, two;
    watch seen, seen_too;
    poll_set set;
};

}  // namespace

TEST_F(Poll, TellsAnEmptySetFromADescriptorThatIsNotThere) {
    const std::string log = log_of([&] { EXPECT_EQ(poll_wait(&set), -1); });
    EXPECT_NE(log.find("poll_wait() <3> no fd in set\n"), std::string::npos);
    EXPECT_EQ(poll_del(&set, 999), 0);
    EXPECT_EQ(poll_rearm(&set, 999), -1);
}

TEST_F(Poll, ReportsAnEdgeOnceAndAgainAfterRearm) {
    ASSERT_EQ(add(one.ours, seen), 0);
    EXPECT_EQ(poll_wait(&set), 0);
    EXPECT_EQ(seen.events, uint32_t{EPOLLOUT});
    set.no_wait = true;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(poll_wait(&set), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
    EXPECT_FALSE(set.no_wait);
    EXPECT_EQ(seen.calls, 1);
    EXPECT_EQ(poll_rearm(&set, one.ours), 0);
    EXPECT_EQ(poll_wait(&set), 0);
    EXPECT_EQ(seen.calls, 2);
    // A hang-up that comes with data is the callback's.
    ASSERT_TRUE(one.peer_says("x"));
    one.peer.reset();
    EXPECT_EQ(poll_wait(&set), 0);
    EXPECT_EQ(seen.events, uint32_t{EPOLLIN | EPOLLOUT | EPOLLHUP});
}

TEST_F(Poll, ChecksItsTimeout) {
    ASSERT_EQ(add(one.ours, seen), 0);
    for (const auto& [timeout, complains] :
         {std::pair{0, true}, {1, false}, {60000, false}, {60001, true}}) {
        set.timeout = timeout;
        EXPECT_EQ(poll_rearm(&set, one.ours), 0);
        const std::string log = log_of([&] { EXPECT_EQ(poll_wait(&set), 0); });
        const std::string text = "<3> timeout error " + std::to_string(timeout) + ", use default\n";
        EXPECT_EQ(log.find(text) != std::string::npos, complains) << timeout;
    }
}

TEST_F(Poll, EndsTheLoopOnlyForAHangUpOfTheFirstDescriptor) {
    silent_pipe first, other, later;
    int number = first.both[0];
    ASSERT_EQ(add(number, seen), 0);
    ASSERT_EQ(add(other.both[0], seen), 0);
    other.hang_up();
    const std::string log = log_of([&] { EXPECT_EQ(poll_wait(&set), 0); });
    EXPECT_NE(
        log.find("<3> epoll event error, fd " + std::to_string(other.both[0]) + ", event 0x10\n"),
        std::string::npos);
    EXPECT_EQ(set.fd_count, 1);
    EXPECT_EQ(close(other.both[0]), 0) << "it is still its owner's";

    // The number decides: whatever bears it later ends the loop as the first one would have.
    ASSERT_EQ(poll_del(&set, number), 0);
    ASSERT_EQ(dup3(later.both[0], number, O_CLOEXEC), number);
    close(later.both[0]);
    ASSERT_EQ(add(number, seen), 0);
    later.hang_up();
    EXPECT_EQ(poll_wait(&set), -1);
    EXPECT_EQ(seen.calls, 0);
    first.hang_up();
}

TEST_F(Poll, SkipsWhatACallbackHasRemoved) {
    seen.action = [&] { poll_del(&set, two.ours); };
    seen_too.action = [&] { poll_del(&set, one.ours); };
    ASSERT_EQ(add(one.ours, seen), 0);
    ASSERT_EQ(add(two.ours, seen_too), 0);
    EXPECT_EQ(poll_wait(&set), 0);
    EXPECT_EQ(seen.calls + seen_too.calls, 1);
    EXPECT_EQ(set.fd_count, 1);
}

TEST_F(Poll, EndsTheBatchWhenACallbackClosesTheSet) {
    const int number = one.ours;
    seen.action = [&] {
        poll_exit(&set);
        EXPECT_FALSE(is_open(number));
        EXPECT_EQ(poll_init(&set), 0);
    };
    ASSERT_EQ(add(one.ours, seen), 0);
    ASSERT_EQ(add(two.ours, seen), 0);
    EXPECT_EQ(poll_wait(&set), -1);
    EXPECT_EQ(seen.calls, 1);
    EXPECT_EQ(one.ours, -1) << "its owner must not close the number again";
    EXPECT_EQ(two.ours, -1);
}

TEST_F(Poll, KeepsARefusedDescriptorCountedButNeverTouchesItsNumber) {
    ASSERT_EQ(add(one.ours, seen), 0);
    int refused = open("/dev/null", O_RDONLY | O_CLOEXEC);  // epoll takes no such file
    const std::string log = log_of([&] { EXPECT_EQ(add(refused, seen_too), -1); });
    EXPECT_NE(log.find("poll_add() <3> add fd "), std::string::npos);
    EXPECT_EQ(set.fd_count, 2);

    // The number goes on to a socket, which is the one that poll_del finds.
    ASSERT_EQ(dup3(two.ours, refused, O_CLOEXEC), refused);
    ASSERT_EQ(add(refused, seen_too), 0);
    EXPECT_EQ(poll_del(&set, refused), 0);
    EXPECT_EQ(poll_wait(&set), 0);
    EXPECT_EQ(seen_too.calls, 0);
    poll_exit(&set);
    EXPECT_EQ(close(refused), 0) << "closed by somebody else";
    EXPECT_EQ(poll_init(&set), 0);
}
