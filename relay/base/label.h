// label.h - a device's id as one label of a domain name.
//
// An id that is such a label already stays as it is. Of any other, the lower-cased letters and the
// digits stay, with a hyphen for each other byte; two hyphens follow and what it takes to tell the
// id from all that look alike: "AA:BB" is "aa-bb--xz2y". So no two ids have the same label, and it
// is the same always and everywhere.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// Empty when it would be too long for a port to follow it: a label has 63 characters at most.
std::string label_of(std::string_view id);
// With a port: "box--80".
std::string label_with_port(std::string_view label, uint16_t port);

struct label_parts {
    std::string_view label;  // of a device
    std::optional<uint16_t> port;
};
label_parts label_split(std::string_view name);
