// clock.h - a clock that stands still until the code sleeps or waits in vain.
#pragma once

#include <cstdint>
#include <functional>

void clock_install();
void clock_reset();
// Runs whenever the code sleeps or waits in vain: the others have their turn.
extern std::function<void()> clock_others;
void clock_advance(int64_t seconds);
