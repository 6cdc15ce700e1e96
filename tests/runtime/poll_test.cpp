#include "runtime/poll.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <thread>

#include "support/fake_time.h"
#include "support/log_of.h"
#include "support/socket_pair.h"

namespace {

struct watch {  // what a callback saw, and what it does
    int calls = 0;
    uint32_t events = 0;
    std::function<void()> action = [] {};
};

void note(uint32_t events, void* argument) {  // the callback, with a watch as argument
    auto* watched = static_cast<watch*>(argument);
    watched->calls++;
    watched->events = events;
    watched->action();
}

struct silent_pipe {  // a reading end whose hang-up comes alone, with no readable bit
    int reader = -1;
    unique_fd writer;
    silent_pipe() {
        int both[2] = {-1, -1};
        EXPECT_EQ(pipe2(both, O_CLOEXEC | O_NONBLOCK), 0);
        reader = both[0];
        writer = unique_fd(both[1]);
    }
    ~silent_pipe() { close(reader); }
};

class Poll : public testing::Test {
   protected:
    Poll() {
        EXPECT_EQ(poll_init(&set), 0);
        set.timeout = POLL_TIMEOUT_MAX;
    }
    ~Poll() override {
        if (set.epfd != -1) {
            poll_exit(&set);
        }
        gwa_log_level_set(GWA_LEVEL_DEBUG);
    }
    int add(int& fd, watch& watcher) { return poll_add(&set, fd, note, &watcher, &fd); }
    static bool is_open(int fd) { return fcntl(fd, F_GETFD) != -1; }

    fake_time time;
    socket_pair one, two;
    watch seen, seen_too;
    poll_set set;
};

}  // namespace

TEST_F(Poll, ReportsAnEdgeOnceAndAgainAfterRearm) {
    ASSERT_EQ(add(one.ours, seen), 0);
    EXPECT_EQ(poll_wait(&set), 0);
    EXPECT_EQ(seen.events, uint32_t{EPOLLOUT});
    EXPECT_EQ(poll_wait(&set), 0);
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

TEST_F(Poll, WaitsForItsTimeoutOrNotAtAll) {
    EXPECT_EQ(poll_wait(&set), -1) << "nothing would end the wait";
    ASSERT_EQ(add(one.ours, seen), 0);
    EXPECT_EQ(poll_now(&set), 0);
    for (const auto& [timeout, waited] :
         {std::pair{0, 100}, {1, 1}, {60000, 60000}, {60001, 100}}) {
        set.timeout = timeout;
        EXPECT_EQ(poll_now(&set), 0);
        EXPECT_EQ(fake_time::waited_us, 0);
        EXPECT_EQ(poll_wait(&set), 0);
        EXPECT_EQ(std::exchange(fake_time::waited_us, 0), waited * 1000) << timeout;
    }
    gwa_time.epoll_wait = [](int, epoll_event*, int, int) { return errno = EINTR, -1; };
    EXPECT_EQ(poll_wait(&set), 0) << "an interrupted wait is no failure";
    gwa_time.epoll_wait = [](int, epoll_event*, int, int) { return errno = EBADF, -1; };
    EXPECT_EQ(poll_wait(&set), -1);
}

TEST_F(Poll, EndsTheLoopOnlyForAHangUpOfTheFirstDescriptor) {
    silent_pipe first, other, later;
    ASSERT_EQ(add(first.reader, seen), 0);
    ASSERT_EQ(add(other.reader, seen), 0);
    other.writer.reset();
    EXPECT_EQ(poll_wait(&set), 0);
    EXPECT_EQ(set.fd_count, 1);
    EXPECT_TRUE(is_open(other.reader)) << "it is still its owner's";

    // The number decides: whatever bears it later ends the loop as the first one would have.
    ASSERT_EQ(poll_del(&set, first.reader), 0);
    ASSERT_EQ(dup3(later.reader, first.reader, O_CLOEXEC), first.reader);
    ASSERT_EQ(add(first.reader, seen), 0);
    later.writer.reset();
    EXPECT_EQ(poll_wait(&set), -1);
    EXPECT_EQ(seen.calls, 0);
    poll_exit(&set);
}

// What is used after it has been freed, the address sanitizer tells.
TEST_F(Poll, LetsACallbackReplaceItselfAndAllOthers) {
    seen.action = [&] {
        for (socket_pair* each : {&one, &two}) {
            EXPECT_EQ(poll_del(&set, each->ours), 0);
            EXPECT_EQ(add(each->ours, seen_too), 0);  // the number is the same, the event is not
        }
    };
    ASSERT_EQ(add(one.ours, seen), 0);
    ASSERT_EQ(add(two.ours, seen), 0);
    EXPECT_EQ(poll_wait(&set), 0);
    EXPECT_EQ(seen.calls, 1);
    EXPECT_EQ(seen_too.calls, 0) << "their own edges come with the next wait";
    EXPECT_EQ(poll_wait(&set), 0);
    EXPECT_EQ(seen_too.calls, 2);
    EXPECT_EQ(set.fd_count, 2);
    EXPECT_TRUE(set.removed.empty()) << "no batch names it any more";
}

TEST_F(Poll, EndsTheBatchWhenACallbackClosesTheSet) {
    socket_pair three;
    const int epfd = set.epfd, number = one.ours;
    seen.action = [&] {
        EXPECT_EQ(poll_del(&set, three.ours), 0);
        poll_exit(&set);
        EXPECT_FALSE(is_open(number) || is_open(epfd));
    };
    EXPECT_NE(fcntl(epfd, F_GETFD) & FD_CLOEXEC, 0);
    for (int* fd : {&one.ours, &two.ours, &three.ours}) {
        ASSERT_EQ(add(*fd, seen), 0);
    }
    EXPECT_EQ(poll_wait(&set), -1);
    EXPECT_EQ(seen.calls, 1);
    EXPECT_TRUE(one.ours == -1 && two.ours == -1) << "owners must not close the number again";
    EXPECT_TRUE(is_open(three.ours)) << "it had been removed";

    EXPECT_EQ(poll_init(&set), 0);
    EXPECT_EQ(set.fd_count + set.timeout, 0);
    ASSERT_EQ(add(three.ours, seen_too), 0);
    EXPECT_EQ(poll_now(&set), 0);
    EXPECT_EQ(seen_too.calls, 1);
}

TEST_F(Poll, ForgetsADescriptorWhoseNumberBearsAnotherFile) {
    ASSERT_EQ(add(one.ours, seen), 0);
    ASSERT_EQ(add(two.ours, seen_too), 0);
    const silent_pipe another;
    for (const int number : {one.ours, two.ours}) {
        ASSERT_EQ(dup3(another.reader, number, O_CLOEXEC), number);  // closes the socket
    }
    const std::string first = std::to_string(one.ours), second = std::to_string(two.ours);
    const std::string reason = " fail, No such file or directory";
    const std::vector<std::string> lines = log_lines_of(GWA_LEVEL_ERROR, [&] {
        EXPECT_EQ(poll_rearm(&set, two.ours), -1);
        EXPECT_EQ(poll_del(&set, two.ours), 0);
        EXPECT_EQ(set.fd_count, 1);
        EXPECT_EQ(poll_del(&set, two.ours), 0) << "gone already";
        poll_exit(&set);
    });
    EXPECT_EQ(lines,
              (std::vector{"<3> rearm fd " + second + reason, "<3> del fd " + second + reason,
                           "<3> del fd " + first + reason}));
    EXPECT_EQ(set.fd_count, 0);
}

TEST_F(Poll, KeepsARefusedDescriptorCountedButNeverTouchesItsNumber) {
    ASSERT_EQ(add(one.ours, seen), 0);
    int refused = open("/dev/null", O_RDONLY | O_CLOEXEC);  // epoll takes no such file
    EXPECT_EQ(add(refused, seen_too), -1);
    EXPECT_EQ(set.fd_count, 2);

    // The number goes on to a socket, which is the one that poll_del finds.
    ASSERT_EQ(dup3(two.ours, refused, O_CLOEXEC), refused);
    ASSERT_EQ(add(refused, seen_too), 0);
    EXPECT_EQ(poll_del(&set, refused), 0);
    EXPECT_EQ(poll_wait(&set), 0);
    EXPECT_EQ(seen_too.calls, 0);
    poll_exit(&set);
    EXPECT_EQ(close(refused), 0) << "closed by somebody else";
}

// The thread sanitizer tells what two threads use at once.
TEST_F(Poll, AnotherThreadAddsAndRemovesWhileTheOwnerWaits) {
    gwa_log_level_set(GWA_LOG_OFF);  // whose lock would keep them apart
    ASSERT_EQ(add(one.ours, seen), 0);
    std::atomic<bool> done{false};
    std::thread other([&] {
        while (!done) {
            EXPECT_EQ(add(two.ours, seen_too), 0);
            EXPECT_EQ(poll_rearm(&set, one.ours), 0);
            EXPECT_EQ(poll_del(&set, two.ours), 0);
        }
    });
    while (seen.calls < 50) {  // only the other thread's rearm makes them more than one
        EXPECT_EQ(poll_now(&set), 0);
    }
    done = true;
    other.join();
}
