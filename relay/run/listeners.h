// listeners.h - the addresses at which boxes, users and administrators come, and who is told of
// them.
#pragma once

#include "hub/registry.h"

struct listeners {
    tcp::acceptor manager, control, data, front;
    std::optional<tcp::acceptor> admin;
};

// Listens, or takes over what the service manager listens at. Ends the process, with the reason,
// when it cannot, or when strangers could reach what they should not.
listeners listeners_open(asio::io_context& io, const options& set);
// Whether these options could do so, as far as that shows without listening.
bool listeners_fit(const options& set);
// Fills in what boxes are told.
void listeners_announce(relay& hub, const listeners& ports);
// The line for whoever has started it.
void listeners_tell(const options& set, const listeners& ports);
