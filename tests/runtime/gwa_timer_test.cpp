#include "runtime/gwa_timer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>

#include "support/eventually.h"
#include "support/fake_time.h"
#include "support/log_of.h"

namespace {

constexpr int64_t SECOND = 1000000;  // us

class TimerWalk : public testing::Test {  // a list that only the test walks
   protected:
    struct subject {
        char name;
        std::string* fired;
        std::function<void()> action = [] {};
        gwa_timer* timer = nullptr;
    };

    TimerWalk() { EXPECT_EQ(gwa_timer_list_make(&list), 0); }
    ~TimerWalk() override {
        destroy_all();
        EXPECT_EQ(gwa_timer_list_destroy(list), 0);
    }
    static void callback(void* argument) {
        auto* self = static_cast<subject*>(argument);
        *self->fired += self->name;
        self->action();
    }
    void start(subject& who, uint32_t interval, uint32_t mode = GWA_TIMER_ONCE) {
        ASSERT_EQ(gwa_timer_init(callback, &who, interval, mode, list, &who.timer), 0);
        ASSERT_EQ(gwa_timer_start(who.timer), 0);
    }
    static void destroy(subject& who) {
        if (who.timer != nullptr) {
            gwa_timer_destroy(who.timer);
            free(std::exchange(who.timer, nullptr));
        }
    }
    void destroy_all() {
        for (subject* each : {&a, &b, &c, &d}) {
            destroy(*each);
        }
    }
    // The names of what fires in a pass at that time.
    std::string pass(int64_t now_us) {
        fake_time::now_us = now_us;
        fired.clear();
        EXPECT_EQ(gwa_timer_expire_check(list), 0);
        return fired;
    }

    fake_time time;
    gwa_timer_list* list = nullptr;
    std::string fired;
    subject a{'a', &fired}, b{'b', &fired}, c{'c', &fired}, d{'d', &fired};
};

}  // namespace

TEST_F(TimerWalk, FiresInOrderOfDeadlineAndStart) {
    start(a, 3);
    start(b, 1);
    start(c, 3);
    start(d, UINT32_MAX);
    EXPECT_EQ(pass(1 * SECOND), "") << "due only once the deadline has passed";
    EXPECT_EQ(pass(1 * SECOND + 1), "b");
    EXPECT_EQ(pass(9 * SECOND), "ac");
    EXPECT_EQ(pass(UINT32_MAX * SECOND), "") << "no interval wraps";
    EXPECT_EQ(pass(UINT32_MAX * SECOND + 1), "d");
}

TEST_F(TimerWalk, RearmsPeriodicTimersFromThePass) {
    start(a, 30, GWA_TIMER_PERIODIC);
    EXPECT_EQ(pass(31 * SECOND), "a");
    EXPECT_EQ(gwa_timer_expire_modify(a.timer, 5), 0);
    EXPECT_EQ(pass(61 * SECOND), "") << "the new interval counts from the next re-arm";
    EXPECT_EQ(pass(62 * SECOND), "a");
    EXPECT_EQ(pass(68 * SECOND), "a");
}

TEST_F(TimerWalk, LeavesOutTheLastOnlyAfterAnInsertionBeforeAnother) {
    for (const bool another : {false, true}) {
        fake_time::now_us = 0;
        start(a, 10, GWA_TIMER_PERIODIC);
        start(b, 10, GWA_TIMER_PERIODIC);
        gwa_timer_expire_modify(b.timer, 100);
        if (another) {
            start(c, 50);
        }
        EXPECT_EQ(pass(11 * SECOND), "ab");
        EXPECT_EQ(pass(200 * SECOND), another ? "ac" : "ab");
        EXPECT_EQ(gwa_timer_stop(b.timer), 0);
        EXPECT_EQ(gwa_timer_start(b.timer), 0);
        EXPECT_EQ(pass(301 * SECOND), "ab") << "a timer that was left out can be started anew";
        destroy_all();
    }
}

TEST_F(TimerWalk, LetsACallbackChangeItsList) {
    struct change {
        const char* what;
        uint32_t mode;
        std::function<void()> action;  // of a, which is due first, before b and c
        const char *first, *second;    // fired by a pass after a second, and long after
    };
    const change changes[] = {
        {"stops itself", GWA_TIMER_PERIODIC, [&] { gwa_timer_stop(a.timer); }, "abc", ""},
        {"destroys itself", GWA_TIMER_PERIODIC, [&] { destroy(a); }, "abc", ""},
        {"starts itself", GWA_TIMER_ONCE, [&] { gwa_timer_start(a.timer); }, "abc", "a"},
        {"starts itself", GWA_TIMER_PERIODIC, [&] { gwa_timer_start(a.timer); }, "abc", "a"},
        {"stops the next", GWA_TIMER_ONCE, [&] { gwa_timer_stop(b.timer); }, "ac", ""},
        {"destroys the next", GWA_TIMER_PERIODIC, [&] { destroy(b); }, "ac", "a"},
        {"destroys all others", GWA_TIMER_ONCE, [&] { destroy(b), destroy(c); }, "a", ""},
        {"starts another", GWA_TIMER_PERIODIC, [&] { start(d, 3600); }, "abc", "a"},
    };
    for (const change& each : changes) {
        fake_time::now_us = 0;
        bool changed = false;
        a.action = [&] { std::exchange(changed, true) ? void() : each.action(); };
        start(a, 1, each.mode);
        start(b, 1);
        start(c, 1);
        EXPECT_EQ(pass(1 * SECOND + 1), each.first) << each.what;
        EXPECT_EQ(pass(3600 * SECOND), each.second) << each.what;
        destroy_all();
    }
}

TEST_F(TimerWalk, StartRunsWhatIsAlreadyDueAtOnce) {
    fake_time::tick_us = 1;
    b.action = [&] { destroy(b); };
    const std::string log = log_of([&] {
        start(a, 0, GWA_TIMER_PERIODIC | GWA_TIMER_FREE_SELF);
        start(b, 0);
    });
    EXPECT_NE(log.find("is expired before start\n"), std::string::npos);
    EXPECT_EQ(fired, "ab");
    EXPECT_EQ(pass(9 * SECOND), "") << "it is not pending";
    // Its mode did not count, so it is still there.
    EXPECT_EQ(gwa_timer_destroy(std::exchange(a.timer, nullptr)), 0);

    fake_time::tick_us = 0;
    start(c, 0);
    EXPECT_EQ(pass(10 * SECOND), "c") << "equal clock readings leave it to the next pass";
}

// What is freed once too often or never, the address sanitizer tells.
TEST_F(TimerWalk, FreesByModeWhenFiredOnceAndWhenDestroyed) {
    for (uint32_t turn = 0; turn < 8; turn++) {
        const uint32_t mode = turn / 2 * GWA_TIMER_FREE_SELF;  // none, itself, its argument, both
        gwa_timer* timer = nullptr;
        void* argument = malloc(1);
        ASSERT_EQ(gwa_timer_init([](void*) {}, argument, 1, mode, list, &timer), 0);
        ASSERT_EQ(gwa_timer_start(timer), 0);
        turn % 2 == 0 ? gwa_timer_destroy(timer) : (pass(fake_time::now_us + 2 * SECOND), 0);
        free((mode & GWA_TIMER_FREE_ARG) != 0 ? nullptr : argument);
        free((mode & GWA_TIMER_FREE_SELF) != 0 ? nullptr : timer);
    }
}

TEST(TimerThread, RunsTheDefaultListAndEndsOnRequest) {
    // A clock that the test moves, and sleeps so short that nobody waits, but for the test's own,
    // which leave the thread time to end.
    static std::atomic<int32_t> now_s = 0, state = 0;
    static const pthread_t test_thread = pthread_self();
    const fake_time restored;
    gwa_time = restored.saved;
    gwa_time.now_us = [] { return now_s * SECOND; };
    gwa_time.sleep_us = [](int64_t) {
        usleep(pthread_equal(pthread_self(), test_thread) ? 100000 : 500);
    };
    ASSERT_EQ(gwa_timer_default_init(), 0);
    gwa_timer *timer = nullptr, *pending = nullptr;
    const auto slow = [](void*) {
        state = 1;
        usleep(20000);
        state = 2;
    };
    ASSERT_EQ(gwa_timer_init(slow, nullptr, 1, GWA_TIMER_ONCE, nullptr, &timer), 0);
    ASSERT_EQ(gwa_timer_init(slow, nullptr, 9999, GWA_TIMER_ONCE, nullptr, &pending), 0);
    ASSERT_EQ(gwa_timer_start(pending), 0);
    ASSERT_EQ(gwa_timer_start(timer), 0);
    now_s = 77;
    EXPECT_TRUE(eventually([] { return state != 0; }));
    EXPECT_EQ(gwa_timer_stop(timer), 0);
    EXPECT_EQ(state, 2) << "stop returned while the callback was running";
    free(timer);

    // Frees what is still pending.
    const std::string log = log_of([] { EXPECT_EQ(gwa_timer_default_exit(), 0); });
    EXPECT_NE(log.find("main thread have exited\n"), std::string::npos);
    EXPECT_EQ(gwa_timer_default_list, nullptr);
    EXPECT_EQ(gwa_now_get(), 77);
}
