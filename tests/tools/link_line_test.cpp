// The line that stands between a box and a relay in figures and fault tests, on a clock of the
// test's.

#include <gtest/gtest.h>

#include <algorithm>

#include "line.h"

namespace {

using namespace std::chrono_literals;

constexpr size_t SIZE = 1250;  // 10,000 bits: 1 ms at 10 Mbit/s

line_settings settings(const std::string& text) {
    line_settings read;
    EXPECT_EQ(line_settings_read(text, read), "");
    return read;
}

struct arrival {
    uint16_t number;
    nanoseconds time;
    bool operator==(const arrival&) const = default;
};

// A line and who looks at it, at no other times than it asks for.
struct watched {
    line path;
    nanoseconds now = 5s;
    uint16_t sent = 0;
    std::vector<arrival> arrived;

    explicit watched(const std::string& text, uint32_t seed = 1) : path(settings(text), seed) {}

    void put(int count = 1, size_t size = SIZE) {
        for (int i = 0; i < count; ++i, ++sent) {
            packet made(size);
            made[0] = static_cast<uint8_t>(sent >> 8);
            made[1] = static_cast<uint8_t>(sent);
            path.put(std::move(made), now);
        }
    }
    void wait_until(nanoseconds then) {
        for (std::optional<nanoseconds> next; (next = path.next()) && *next <= then;) {
            ASSERT_GE(*next, now) << "a time that is over is asked for";
            now = *next;
            while (const std::optional<packet> found = path.take(now)) {
                const auto number = static_cast<uint16_t>((*found)[0] << 8 | (*found)[1]);
                arrived.push_back({number, now - 5s});
            }
        }
        now = then;
    }
    void change(const std::string& text) {
        line_settings changed = path.settings();
        EXPECT_EQ(line_settings_read(text, changed), "");
        path.set(changed, now);
    }
    const std::vector<arrival>& end() {
        wait_until(now + 1h);
        return arrived;
    }
};

void PrintTo(const arrival& seen, std::ostream* to) {
    *to << seen.number << " at " << static_cast<double>(seen.time.count()) / 1e6 << " ms";
}

std::vector<arrival> every(nanoseconds step, nanoseconds first, std::vector<uint16_t> numbers) {
    std::vector<arrival> expected;
    for (const uint16_t number : numbers) {
        expected.push_back({number, first});
        first += step;
    }
    return expected;
}

TEST(LinkLine, PacketsLeaveOneByOneAndArriveInOrder) {
    watched slow("rate=10M delay=30ms");
    slow.put(5);
    slow.wait_until(5s + 2500us);
    slow.put(1);  // behind the five, who are not through
    EXPECT_EQ(slow.end(), every(1ms, 31ms, {0, 1, 2, 3, 4, 5}));
    EXPECT_EQ(slow.path.counts().packets, 6U);
    EXPECT_EQ(slow.path.counts().bytes, 6 * SIZE);
    EXPECT_EQ(slow.path.counts().most_waiting, static_cast<int64_t>(5 * SIZE));

    watched sizes("rate=1M");  // each as long as it is; and a line that was idle owes nothing
    sizes.put(1, 125);
    sizes.put(1, 1250);
    sizes.wait_until(6s);
    sizes.put(1, 250);
    EXPECT_EQ(sizes.end(), (std::vector<arrival>{{0, 1ms}, {1, 11ms}, {2, 1002ms}}));

    watched free("delay=7ms");
    free.put(3);
    EXPECT_EQ(free.end(), every(0ms, 7ms, {0, 1, 2}));
}

TEST(LinkLine, TheQueueTakesWhatFits) {
    for (const std::string queue : {"queue=4ms", "queue=5000"}) {
        SCOPED_TRACE(queue);
        watched router("rate=10M " + queue);
        router.put(6);
        router.wait_until(5s + 1500us);
        router.put(3);  // one has left
        EXPECT_EQ(router.end(), every(1ms, 1ms, {0, 1, 2, 3, 6}));
        EXPECT_EQ(router.path.counts().refused, 4U);
    }
    watched tiny("rate=10M queue=1");
    tiny.put(2);
    EXPECT_EQ(tiny.end(), every(1ms, 1ms, {0})) << "the line itself holds one";
    watched narrow("rate=10M max=1250");
    narrow.put(1, SIZE + 1);
    narrow.put(1, SIZE);
    EXPECT_EQ(narrow.end(), every(1ms, 1ms, {1})) << "too large for the line";
    EXPECT_EQ(narrow.path.counts().too_large, 1U);
    watched unlimited("queue=1");
    unlimited.put(50);
    EXPECT_EQ(unlimited.end().size(), 50U) << "nothing waits for a line without a rate";
}

// Which of 20,000 packets arrive, as their numbers.
std::vector<uint16_t> survivors(const std::string& text, uint32_t seed) {
    watched lossy(text, seed);
    lossy.put(20000);
    std::vector<uint16_t> numbers;
    for (const arrival& seen : lossy.end()) {
        numbers.push_back(seen.number);
    }
    EXPECT_EQ(lossy.path.counts().lost, 20000 - numbers.size());
    return numbers;
}

TEST(LinkLine, LosesAsTheSeedSays) {
    const std::vector<uint16_t> few = survivors("loss=0.5%", 1);
    EXPECT_NEAR(static_cast<double>(few.size()), 19900, 50);  // five standard deviations
    EXPECT_EQ(few, survivors("loss=0.5", 1)) << "the same again";
    EXPECT_NE(few, survivors("loss=0.5", 2)) << "another seed";
    const std::vector<uint16_t> most = survivors("loss=20%", 1);
    EXPECT_NEAR(static_cast<double>(most.size()), 16000, 283);
    EXPECT_TRUE(std::includes(few.begin(), few.end(), most.begin(), most.end()))
        << "more loss takes more, and not others";
    EXPECT_TRUE(survivors("loss=100%", 1).empty());
    constexpr uint32_t UNLUCKY = 658920;  // begins with the draw that is the first to be lost
    EXPECT_EQ(survivors("", UNLUCKY).size(), 20000U);
    EXPECT_EQ(survivors("loss=0.0001%", UNLUCKY).front(), 1U);

    watched lossy("rate=10M delay=5ms loss=50%");
    lossy.put(40);
    lossy.end();
    EXPECT_NEAR(static_cast<double>(lossy.arrived.size()), 20, 16);
    for (const arrival& seen : lossy.arrived) {
        EXPECT_EQ(seen.time, 6ms + seen.number * 1ms) << "a lost packet takes its time, too";
    }
}

TEST(LinkLine, ChangesWhileItIsThere) {
    watched faster("rate=10M delay=3ms");
    faster.put(4);
    faster.wait_until(5s + 1500us);
    faster.change("rate=100M");  // 0 is under way, 1 is leaving
    EXPECT_EQ(faster.end(), (std::vector<arrival>{{0, 4ms}, {1, 5ms}, {2, 5100us}, {3, 5200us}}));

    watched nearer("rate=10M delay=30ms");
    nearer.put(3);
    nearer.wait_until(5s + 2ms);
    nearer.change("delay=1ms");  // 0 and 1 are under way, and 2 may not overtake them
    nearer.put(1);
    EXPECT_EQ(nearer.end(), (std::vector<arrival>{{0, 31ms}, {1, 32ms}, {2, 32ms}, {3, 32ms}}));

    watched cut("rate=10M delay=10ms");
    cut.put(3);
    cut.wait_until(5s + 1ms);
    cut.change("loss=100%");
    cut.wait_until(6s);
    cut.change("loss=0");
    cut.put(1);
    EXPECT_EQ(cut.end(), (std::vector<arrival>{{0, 11ms}, {3, 1011ms}}));
}

TEST(LinkSettings, AreWordsInAnyOrder) {
    const line_settings all = settings("  loss=0.25%  rate=2.5M delay=30ms\tmax=1400 queue=64k ");
    EXPECT_EQ(all.rate, 2'500'000);
    EXPECT_EQ(all.delay, 30ms);
    EXPECT_EQ(all.loss, 2500U);
    EXPECT_EQ(all.queue_bytes, 64'000);
    EXPECT_EQ(all.largest, 1400U);
    EXPECT_EQ(settings("rate=8k delay=20us").delay, 20us);
    EXPECT_EQ(settings("rate=1G").rate, 1'000'000'000);
    EXPECT_EQ(settings("queue=1500 queue=0.5s").queue, 500ms);
    EXPECT_EQ(settings("queue=1500 queue=0.5s").queue_bytes, 0) << "the later one counts";
    EXPECT_EQ(settings("queue=0ms").queue, 0ms);
    EXPECT_EQ(settings("queue=1").queue_bytes, 1);

    for (const std::string wrong :
         {"rate", "rate=", "rate=fast", "rate=5m", "rate=-1", "rate=1e300", "rate=nan", "delay=10",
          "delay=-1ms", "loss=101%", "loss=1ms", "queue=0", "queue=x", "max=1s", "=1", "speed=1"}) {
        line_settings kept = all;
        EXPECT_EQ(line_settings_read("rate=7 " + wrong, kept), "no setting of a line: " + wrong);
        EXPECT_EQ(kept.rate, all.rate) << wrong;
    }
}

}  // namespace
