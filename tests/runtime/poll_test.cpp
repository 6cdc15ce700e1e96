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
    int both[2] = {-1, -1};
    silent_pipe() { EXPECT_EQ(pipe2(both, O_CLOEXEC | O_NONBLOCK), 0); }
    void hang_up() { close(both[1]); }
};

class Poll : public testing::Test {
   protected:
    Poll() {
        EXPECT_EQ(poll_init(&set), 0);
        set.timeout = POLL_TIMEOUT_MAX;
    }
    ~Poll() override { poll_exit(&set); }
    int add(int& fd, watch& watcher) { return poll_add(&set, fd, note, &watcher, &fd); }
    static bool is_open(int fd) { return fcntl(fd, F_GETFD) != -1; }

    fake_time time;
    socket_pair one, two;
    watch seen, seen_too;
    poll_set set;
};

}  // namespace

TEST_F(Poll, RefusesWhatMakesNoSense) {
    const std::tuple<const char*, std::function<int()>, int> calls[] = {
        {"poll_init() <3> set is NULL\n", [] { return poll_init(nullptr); }, -1},
        {"poll_add() <3> set is NULL\n", [] { return poll_add(nullptr, 0, note, nullptr); }, -1},
        {"poll_del() <3> set is NULL\n", [] { return poll_del(nullptr, 0); }, -1},
        {"poll_rearm() <3> set is NULL\n", [] { return poll_rearm(nullptr, 0); }, -1},
        {"poll_wait() <3> set is NULL\n", [] { return poll_wait(nullptr); }, -1},
        {"poll_wait() <3> no fd in set\n", [&] { return poll_wait(&set); }, -1},
        {"poll_wait() <3> no fd in set\n", [&] { return poll_now(&set); }, -1},
        {"poll_add() <3> fd < 0\n", [&] { return poll_add(&set, -1, note, &seen); }, -1},
        {"<3> callback is NULL\n", [&] { return poll_add(&set, 0, nullptr, &seen); }, -1},
        {"poll_del() <3> fd < 0\n", [&] { return poll_del(&set, -1); }, -1},
        {"poll_del() <7> del fd 0 from poll\n", [&] { return poll_del(&set, 0); }, 0},
        {"<3> rearm fd 0 fail, not registered\n", [&] { return poll_rearm(&set, 0); }, -1},
        {"", [] { return poll_exit(nullptr), 0; }, 0},
    };
    for (const auto& [line, call, expected] : calls) {
        int result = 1;
        const std::string log = log_of([&] { result = call(); });
        EXPECT_TRUE(log.ends_with(line) && log.empty() == (*line == '\0')) << line << log;
        EXPECT_EQ(result, expected) << line;
    }
}

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
    ASSERT_EQ(add(one.ours, seen), 0);
    EXPECT_EQ(poll_now(&set), 0);
    EXPECT_EQ(seen.calls, 1);
    for (const auto& [timeout, waited, complains] :
         {std::tuple{0, 100, true}, {1, 1, false}, {60000, 60000, false}, {60001, 100, true}}) {
        set.timeout = timeout;
        fake_time::waited_us = 0;
        EXPECT_EQ(log_of([&] { EXPECT_EQ(poll_now(&set), 0); }), "") << timeout;
        EXPECT_EQ(fake_time::waited_us, 0) << timeout;
        const std::string log = log_of([&] { EXPECT_EQ(poll_wait(&set), 0); });
        EXPECT_EQ(fake_time::waited_us, waited * 1000) << timeout;
        const std::string text = "<3> timeout error " + std::to_string(timeout) + ", use default\n";
        EXPECT_EQ(log.find(text) != std::string::npos, complains) << timeout;
    }
}

TEST_F(Poll, AnInterruptedWaitIsNoFailure) {
    ASSERT_EQ(add(one.ours, seen), 0);
    gwa_time.epoll_wait = [](int, epoll_event*, int, int) { return errno = EINTR, -1; };
    EXPECT_EQ(log_of([&] { EXPECT_EQ(poll_wait(&set), 0); }), "");
    gwa_time.epoll_wait = [](int, epoll_event*, int, int) { return errno = EBADF, -1; };
    const std::string log = log_of([&] { EXPECT_EQ(poll_wait(&set), -1); });
    EXPECT_TRUE(log.ends_with("poll_wait() <3> epoll_wait fail, Bad file descriptor\n")) << log;
}

TEST_F(Poll, TakesSixteenEventsAtATime) {
    socket_pair many[17];
    for (socket_pair& each : many) {
        ASSERT_EQ(add(each.ours, seen), 0);
    }
    EXPECT_EQ(poll_wait(&set), 0);
    EXPECT_EQ(seen.calls, 16);
    EXPECT_EQ(poll_wait(&set), 0);
    EXPECT_EQ(seen.calls, 17);
    poll_exit(&set);  // closes them: their owners keep -1
    EXPECT_EQ(poll_init(&set), 0);
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

// Whatever a callback removes, the address sanitizer tells what is used after it has been freed.
TEST_F(Poll, SkipsWhatACallbackHasRemoved) {
    seen.action = [&] { poll_del(&set, two.ours); };
    seen_too.action = [&] { poll_del(&set, one.ours); };
    ASSERT_EQ(add(one.ours, seen), 0);
    ASSERT_EQ(add(two.ours, seen_too), 0);
    EXPECT_EQ(poll_wait(&set), 0);
    EXPECT_EQ(seen.calls + seen_too.calls, 1);
    EXPECT_EQ(set.fd_count, 1);
    EXPECT_EQ(poll_now(&set), 0);
    EXPECT_TRUE(set.removed.empty()) << "no batch names it any more";
}

TEST_F(Poll, LetsACallbackReplaceItselfAndAllOthers) {
    const auto replace = [&] {
        for (socket_pair* each : {&one, &two}) {
            EXPECT_EQ(poll_del(&set, each->ours), 0);
            EXPECT_EQ(add(each->ours, seen_too), 0);  // the number is the same, the event is not
        }
    };
    seen.action = replace;
    ASSERT_EQ(add(one.ours, seen), 0);
    ASSERT_EQ(add(two.ours, seen), 0);
    EXPECT_EQ(poll_wait(&set), 0);
    EXPECT_EQ(seen.calls, 1);
    EXPECT_EQ(seen_too.calls, 0) << "their own edges come with the next wait";
    EXPECT_EQ(poll_wait(&set), 0);
    EXPECT_EQ(seen_too.calls, 2);
    EXPECT_EQ(set.fd_count, 2);
}

TEST_F(Poll, EndsTheBatchWhenACallbackClosesTheSet) {
    socket_pair three;
    const int epfd = set.epfd, number = one.ours, removed = three.ours;
    seen.action = [&] {
        EXPECT_EQ(poll_del(&set, removed), 0);
        poll_exit(&set);
        EXPECT_FALSE(is_open(number));
        EXPECT_FALSE(is_open(epfd));
    };
    EXPECT_NE(fcntl(epfd, F_GETFD) & FD_CLOEXEC, 0);
    for (int* fd : {&one.ours, &two.ours, &three.ours}) {
        ASSERT_EQ(add(*fd, seen), 0);
    }
    EXPECT_EQ(poll_wait(&set), -1);
    EXPECT_EQ(seen.calls, 1);
    EXPECT_EQ(one.ours, -1) << "its owner must not close the number again";
    EXPECT_EQ(two.ours, -1);
    EXPECT_TRUE(is_open(three.ours)) << "it had been removed";

    EXPECT_EQ(poll_init(&set), 0);
    EXPECT_EQ(set.fd_count, 0);
    EXPECT_EQ(set.timeout, 0);
    ASSERT_EQ(add(three.ours, seen_too), 0);
    EXPECT_EQ(poll_now(&set), 0);
    EXPECT_EQ(seen_too.calls, 1);
}

TEST_F(Poll, ForgetsADescriptorWhoseNumberBearsAnotherFile) {
    ASSERT_EQ(add(one.ours, seen), 0);
    ASSERT_EQ(add(two.ours, seen_too), 0);
    silent_pipe another;
    for (const int number : {one.ours, two.ours}) {
        ASSERT_EQ(dup3(another.both[0], number, O_CLOEXEC), number);  // closes the socket
    }
    const std::string reason = " fail, No such file or directory\n";
    std::string log = log_of([&] { EXPECT_EQ(poll_rearm(&set, two.ours), -1); });
    EXPECT_TRUE(log.ends_with("<3> rearm fd " + std::to_string(two.ours) + reason)) << log;
    log = log_of([&] { EXPECT_EQ(poll_del(&set, two.ours), 0); });
    EXPECT_TRUE(log.ends_with("<3> del fd " + std::to_string(two.ours) + reason)) << log;
    EXPECT_EQ(set.fd_count, 1);
    log = log_of([&] { EXPECT_EQ(poll_del(&set, two.ours), 0); });
    EXPECT_EQ(log.find("fail"), std::string::npos) << "gone already: " << log;

    const std::string number = std::to_string(one.ours);
    log = log_of([&] { poll_exit(&set); });
    EXPECT_TRUE(log.ends_with("poll_exit() <3> del fd " + number + reason)) << log;
    EXPECT_EQ(set.fd_count, 0);
    EXPECT_EQ(poll_init(&set), 0);
    another.hang_up();
    close(another.both[0]);
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

// The thread sanitizer tells what two threads use at once.
TEST_F(Poll, AnotherThreadAddsAndRemovesWhileTheOwnerWaits) {
    ASSERT_EQ(add(one.ours, seen), 0);
    std::atomic<bool> done{false};
    const std::string log = log_of([&] {
        std::thread other([&] {
            while (!done) {
                EXPECT_EQ(poll_add(
                              &set, two.ours, [](uint32_t, void*) {}, nullptr),
                          0);
                EXPECT_EQ(poll_rearm(&set, one.ours), 0);
                EXPECT_EQ(poll_del(&set, two.ours), 0);
            }
        });
        while (seen.calls < 50) {  // only the other thread's rearm makes them more than one
            EXPECT_EQ(poll_now(&set), 0);
        }
        done = true;
        other.join();
    });
    EXPECT_EQ(log.find("<3>"), std::string::npos) << log;
    EXPECT_EQ(set.fd_count, 1);
}
