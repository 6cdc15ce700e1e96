// metrics.h - the relay in numbers, for Prometheus and what reads its text format.
#pragma once

#include "hub/registry.h"

std::string metrics_text(const relay& hub);
