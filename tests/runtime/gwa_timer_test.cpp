#include "runtime/gwa_timer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>

#include "runtime/gwa_timer_list.h"
#include "support/eventually.h"
#include "support/fake_time.h"
#include "support/log_of.h"

namespace {

constexpr int64_t SECOND = GWA_US_PER_SECOND;  // us

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
    subject* const periodic[3] = {&a, &b, &c};
};

}  // namespace

TEST_F(TimerWalk, FiresInOrderOfDeadlineAndStart) {
    start(a, 3);
    start(b, 1, GWA_TIMER_PERIODIC);
    start(c, 3);
    start(d, UINT32_MAX);
    EXPECT_EQ(pass(1 * SECOND), "") << "due only once the deadline has passed";
    EXPECT_EQ(pass(1 * SECOND + 1), "b");
    EXPECT_EQ(pass(2 * SECOND + 1), "") << "its period counts from the pass that it fires in";
    EXPECT_EQ(pass(9 * SECOND), "bac");
    EXPECT_EQ(pass(UINT32_MAX * SECOND), "b") << "no interval wraps";
    EXPECT_EQ(pass(UINT32_MAX * SECOND + 1), "d");
}

TEST_F(TimerWalk, LeavesOutTheLastOnlyAfterAnInsertionBeforeAnother) {
    struct row {
        uint32_t again[3];    // the intervals with which they are armed again, 11 s after the start
        uint32_t d;           // a one-shot timer's, which waits meanwhile; 0: there is none
        const char* pending;  // in the order in which they fire next
    };
    const row rows[] = {
        {{10, 20, 30}, 0, "abc"},    // each in turn is the last, and none is before another
        {{30, 20, 10}, 0, "cba"},    // none but the first is the last of all
        {{20, 10, 20}, 0, "ba"},     // c would be the last after b was put before a
        {{20, 10, 19}, 0, "bca"},    // c is not the last
        {{10, 100, 200}, 50, "ad"},  // b would be the last after a was put before d, c too
        {{39, 10, 100}, 50, "bda"},  // a, as late as d, comes after it
    };
    for (const row& each : rows) {
        SCOPED_TRACE(each.pending);
        fake_time::now_us = 0;
        for (int i = 0; i < 3; i++) {
            start(*periodic[i], 10, GWA_TIMER_PERIODIC);
            gwa_timer_expire_modify(periodic[i]->timer, each.again[i]);
        }
        if (each.d != 0) {
            start(d, each.d);
        }
        EXPECT_EQ(pass(11 * SECOND), "abc");
        EXPECT_EQ(pass(500 * SECOND), each.pending);
        for (const subject* one : periodic) {
            gwa_timer_start(one->timer);
        }
        EXPECT_EQ(pass(1000 * SECOND).size(), 3U) << "what has been left out is started anew";
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
        {"stops itself again", GWA_TIMER_PERIODIC,
         [&] { gwa_timer_start(a.timer), gwa_timer_stop(a.timer); }, "abc", ""},
        {"starts itself again", GWA_TIMER_PERIODIC,
         [&] { gwa_timer_stop(a.timer), gwa_timer_start(a.timer); }, "abc", "a"},
        {"starts the next over", GWA_TIMER_ONCE, [&] { gwa_timer_start(b.timer); }, "ac", "b"},
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
    start(a, 0, GWA_TIMER_PERIODIC | GWA_TIMER_FREE_SELF);
    start(b, 0);
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
    static gwa_timer* timer;
    static int (*action)(gwa_timer*);  // when it fires
    const auto act = [](void*) { std::exchange(action, nullptr)(timer); };
    for (const uint32_t mode : {0U, 4U, 8U, 12U}) {
        for (const auto last : {gwa_timer_stop, gwa_timer_destroy}) {
            void* const argument = malloc(1);
            ASSERT_EQ(gwa_timer_init(act, argument, 1, mode, list, &timer), 0);
            action = gwa_timer_start;
            ASSERT_EQ(gwa_timer_start(timer), 0);
            pass(fake_time::now_us + 2 * SECOND);
            action = last;
            pass(fake_time::now_us + 2 * SECOND);
            free((mode & GWA_TIMER_FREE_ARG) != 0 ? nullptr : argument);
            free((mode & GWA_TIMER_FREE_SELF) != 0 ? nullptr : timer);
        }
    }
}

TEST_F(TimerWalk, ShowsWhatIsPendingOneWayAndTheOther) {
    start(a, 1);
    start(b, 2);
    start(c, 30);
    size_t lines = 0;
    a.action = [&] {
        lines = log_lines_of(GWA_LEVEL_DEBUG, [&] { gwa_timer_list_show(list); }).size();
        gwa_log_level_set(GWA_LEVEL_DEBUG);
    };
    EXPECT_EQ(pass(9 * SECOND), "ab");
    EXPECT_EQ(lines, 6U) << "each way a headline, c, and b, which is due as well";
}

// A clock that the test moves. The list's thread sleeps a moment after each pass or, while it is
// held, until it is let go. The test's own sleeps, which wait for that thread to end, end with it.
struct thread_clock {
    static inline std::atomic<int32_t> now_s;
    static inline std::atomic<bool> held, asleep;
    static inline gwa_timer_list* ending;
    static inline int probes;
    const fake_time restored;

    thread_clock() {
        now_s = 0, held = asleep = false, ending = nullptr, probes = 0;
        gwa_time = restored.saved;
        gwa_time.now_us = gwa_time.steady_us = [] { return now_s * SECOND; };
        gwa_time.sleep_us = [](int64_t) {
            if (gettid() == getpid()) {
                probes += ending != nullptr ? 1 : 0;
                eventually([] { return held || ending == nullptr || ending->ended; });
                return;
            }
            asleep = true;
            do {
                usleep(500);
            } while (held);
        };
    }
};

TEST(TimerThread, RunsTheDefaultListAndEndsOnRequest) {
    const thread_clock clock;
    static std::atomic<int32_t> state;
    state = 0;
    const auto slow = [](void*) {
        state = 1;
        usleep(20000);
        state = 2;
    };
    gwa_timer *timer = nullptr, *pending = nullptr;
    ASSERT_EQ(gwa_timer_default_init(), 0);
    gwa_timer_list* const list = gwa_timer_default_list;
    EXPECT_EQ(gwa_timer_default_init(), 0);
    EXPECT_EQ(gwa_timer_default_list, list) << "there is one already";
    ASSERT_EQ(gwa_timer_init(slow, nullptr, 1, GWA_TIMER_ONCE, nullptr, &timer), 0);
    ASSERT_EQ(gwa_timer_init(slow, nullptr, 9999, GWA_TIMER_ONCE, nullptr, &pending), 0);
    ASSERT_EQ(gwa_timer_start(pending), 0);
    ASSERT_EQ(gwa_timer_start(timer), 0);
    clock.now_s = 77;
    EXPECT_TRUE(eventually([] { return state != 0; }));
    EXPECT_EQ(gwa_timer_stop(timer), 0);
    EXPECT_EQ(state, 2) << "stop returned while the callback was running";
    free(timer);

    clock.ending = list;
    EXPECT_EQ(gwa_timer_default_exit(), 0);  // which frees what is still pending
    EXPECT_EQ(clock.probes, 1);
    EXPECT_EQ(gwa_timer_default_list, nullptr);
    EXPECT_EQ(gwa_timer_default_exit(), 0) << "there is none any more";
    EXPECT_EQ(gwa_now_get(), 77);
}

TEST(TimerThread, KeepsAListThatItIsStillAsleepOver) {
    const thread_clock clock;
    clock.held = true;
    gwa_timer_list* list = nullptr;
    ASSERT_EQ(gwa_timer_list_init(&list), 0);
    EXPECT_TRUE(eventually([&] { return clock.asleep.load(); }));
    clock.ending = list;
    EXPECT_EQ(gwa_timer_list_destroy(list), 0);
    EXPECT_EQ(clock.probes, 3);
    clock.held = false;
    EXPECT_TRUE(eventually([&] { return list->ended.load(); })) << "it has been asked to end";
    free(list);
}
