// Rates, graphs and events of a device.

#include "hub/activity.h"

#include <gtest/gtest.h>

namespace {

TEST(GwrelayActivity, CountsRatesOfCountsThatBeginAnew) {
    rate_meter meter;
    const std::tuple<uint64_t, int, uint64_t, uint64_t> looks[] = {{3000, 1000, 3000, 3000},
                                                                   {3000, 1000, 0, 0},
                                                                   {4000, 500, 1000, 2000},
                                                                   {700, 1000, 700, 700},
                                                                   {701, 0, 1, 1000}};
    for (const auto& [total, passed_ms, moved, rate] : looks) {
        EXPECT_EQ(meter.look(total, milliseconds(passed_ms)), moved) << total;
        EXPECT_EQ(meter.rate, rate) << total;
    }
}

TEST(GwrelayActivity, DrawsTheSixtyStepsThatAreOver) {
    const std::string nothing(GRAPH_STEPS, '-');
    activity box;
    const std::pair<uint64_t, uint64_t> steps[] = {
        {1, 7}, {320, 8}, {320, 8}, {UINT64_MAX, 10}};  // least is 320 bytes, most 'z'
    for (const auto& [bytes, step] : steps) {
        box.count(bytes, step);
    }
    EXPECT_EQ(box.graph_text(), nothing.substr(3) + "03-");
    box.count(640, 10 + GRAPH_STEPS);
    EXPECT_EQ(box.graph_text(), "z" + nothing.substr(1));
    box.count(0, 11 + GRAPH_STEPS);
    EXPECT_EQ(box.graph_text(), nothing.substr(1) + "3");
    box.count(640, 5000);
    EXPECT_EQ(box.graph_text(), "");
    box.count(0, 5001);
    EXPECT_EQ(box.graph_text(), nothing.substr(1) + "3");
}

TEST(GwrelayActivity, KeepsTheLastEventsAndHowOftenTheyCame) {
    activity box;
    for (size_t i = 0; i < EVENTS_MAX + 2; ++i) {
        box.note(happening::CUT, std::to_string(i / 2));
        box.note(happening::REFUSED, std::to_string(i / 2));
    }
    box.note(happening::REFUSED, box.events.back().text);
    ASSERT_EQ(box.events.size(), EVENTS_MAX);
    EXPECT_EQ(box.events.back().times, 2U);
    EXPECT_EQ(box.events.front().times, 1U);
    EXPECT_EQ(box.events.front().kind, happening::CUT);
}

// Once is a device that starts anew; twice within ten minutes are two of them.
TEST(GwrelayActivity, KnowsAnIdThatIsUsedTwice) {
    activity box;
    const auto begin = steady::now();
    for (const auto after : {milliseconds(0), TWICE_TIME, 2 * TWICE_TIME - milliseconds(1)}) {
        EXPECT_FALSE(box.used_twice(begin + after));
        box.note_replaced("192.0.2.1", begin + after);
    }
    EXPECT_TRUE(box.used_twice(begin + 3 * TWICE_TIME - milliseconds(2)));
    EXPECT_FALSE(box.used_twice(begin + 3 * TWICE_TIME - milliseconds(1)));
}

}  // namespace
