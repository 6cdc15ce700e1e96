// Which devices the relay takes for gone; with real ones, in tests/e2e.
#include "net/liveness.h"

#include <gtest/gtest.h>

namespace {

constexpr int LIMIT_S = 55, NEVER_GONE = 0;

// It is looked at once a second; the state is that of the first look, and older each time.
TEST(GwrelayLiveness, IsOverWhenNothingIsAcknowledgedForFiftyFiveSeconds) {
    using s = std::chrono::seconds;
    const struct {
        const char* what;
        liveness_state state;
        int sign_of_life_at, looks_away_at, gone_at;
    } cases[] = {
        {"idle for long", {false, 0, s(900), s(900)}, -1, -1, NEVER_GONE},
        {"sends nothing itself", {true, 0, s(0), s(900)}, -1, -1, LIMIT_S},
        {"bytes have just left", {true, 0, s(900), s(900)}, -1, -1, LIMIT_S},
        {"sends, but hears nothing", {true, 0, s(900), s(-900)}, -1, -1, LIMIT_S},
        {"acknowledges late", {true, 0, s(0), s(900)}, 50, -1, 50 + LIMIT_S},
        {"a lost probe of its window", {false, 1, s(900), s(900)}, -1, -1, NEVER_GONE},
        {"two", {false, 2, s(900), s(900)}, -1, -1, LIMIT_S},
        {"two, but it sends", {false, 2, s(900), s(-900)}, -1, -1, NEVER_GONE},
        {"nobody has looked for a while", {true, 0, s(0), s(0)}, -1, 40, 44 + LIMIT_S},
    };
    for (const auto& [what, first, sign_at, away_at, gone_at] : cases) {
        liveness its{.limit = s(LIMIT_S)};
        liveness_state state = first;
        int gone = NEVER_GONE;
        for (int second = 0; second < 120 && gone == NEVER_GONE; ++second) {
            second += second == away_at ? 4 : 0;
            state.acknowledged = second == sign_at ? s(0) : state.acknowledged;
            const auto now = steady::time_point(s(1000 + second));
            gone = liveness_judge(its, now, state) ? second : NEVER_GONE;
            state.acknowledged += s(1);
            state.received += s(1);
        }
        EXPECT_EQ(gone, gone_at) << what;
    }
}

}  // namespace
