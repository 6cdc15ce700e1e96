#include "shrink.h"

#include <algorithm>
#include <cstddef>

namespace {

using check = std::function<bool(const schedule&)>;

bool try_instead(schedule* steps, schedule other, const check& still_fails) {
    if (!still_fails(other)) {
        return false;
    }
    *steps = std::move(other);
    return true;
}

void leave_out(schedule* steps, const check& still_fails) {
    for (size_t part = std::max<size_t>(steps->size() / 2, 1); part >= 1; part /= 2) {
        for (size_t at = 0; at < steps->size();) {
            schedule fewer = *steps;
            const auto first = fewer.begin() + static_cast<ptrdiff_t>(at);
            fewer.erase(first, first + std::min(static_cast<ptrdiff_t>(part), fewer.end() - first));
            at += try_instead(steps, fewer, still_fails) ? 0 : part;
        }
    }
}

// Two steps that follow each other as one that does as much.
void join(schedule* steps, const check& still_fails) {
    for (size_t at = 0; at + 1 < steps->size();) {
        schedule fewer = *steps;
        step& first = fewer[at];
        const step second = fewer[at + 1];
        const bool joins = first.what == second.what && description(first.what).arguments == 1;
        first.with[0] += second.with[0];
        fewer.erase(fewer.begin() + static_cast<ptrdiff_t>(at) + 1);
        at += joins && try_instead(steps, fewer, still_fails) ? 0 : 1;
    }
}

void take_smaller(schedule* steps, const check& still_fails) {
    for (size_t at = 0; at < steps->size(); at++) {
        for (size_t argument = 0; argument < description((*steps)[at].what).arguments; argument++) {
            for (const bool halve : {false, true}) {
                for (bool smaller = true; smaller;) {
                    schedule other = *steps;
                    int64_t& value = other[at].with[argument];
                    const int64_t before = value;
                    value = halve ? before / 2 : 0;
                    smaller = value != before && try_instead(steps, other, still_fails);
                }
            }
        }
    }
}

}  // namespace

schedule shrunk(schedule steps, const check& still_fails) {
    leave_out(&steps, still_fails);
    join(&steps, still_fails);
    take_smaller(&steps, still_fails);
    leave_out(&steps, still_fails);
    return steps;
}
