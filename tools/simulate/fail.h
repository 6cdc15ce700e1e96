// fail.h - calls that fail on purpose.
#pragma once

#include "step.h"

// Plays such a step. Where the failure ends the daemon by design, only a copy of this process has
// it; if anything does not hold there, this one ends too.
void fail_play(const step& one);
