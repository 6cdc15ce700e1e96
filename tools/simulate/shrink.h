// shrink.h - a shorter schedule that still shows the same.
#pragma once

#include <functional>

#include "step.h"

// Leaves out steps, ever smaller groups of them, joins those that follow each other, and takes
// smaller numbers, as long as `still_fails` says so.
schedule shrunk(schedule steps, const std::function<bool(const schedule&)>& still_fails);
