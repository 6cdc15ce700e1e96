// names.h - the names under which users reach devices: "box--80.relay.example", and
// "box.relay.example" for the port that the device has announced for its web page. One label, so
// that one wildcard certificate covers all of them.
#pragma once

#include "hub/registry.h"

// The name in a Host, in lower case and without its port.
std::string host_name(std::string_view host);

struct named {
    std::shared_ptr<device> owner;  // null: no device has this name
    uint16_t port = 0;              // 0: it has announced none
};

// What the Host of a request names. Nothing when it is no name under the relay's domain, and so the
// relay's own.
std::optional<named> names_find(const relay& hub, std::string_view host);
