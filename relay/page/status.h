// status.h - what the relay knows, as JSON. Times are seconds since 1970, rates bytes a second.
#pragma once

#include <string>

#include "hub/registry.h"

// Everything, for programs. Fields come to it, none goes and none changes.
std::string status_json(const relay& hub);
// A device in it.
std::string status_device(const relay& hub, const device& box);
// A device's row on the page.
std::string status_row(const relay& hub, const device& box);
// What is said of the relay as a whole, without braces.
std::string status_whole(const relay& hub);
std::string status_now(const relay& hub);
