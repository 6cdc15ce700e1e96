// devices.h - what devices talk to: the address manager, control and data connections.
//
// A user whose outbox is full stops the reading of the data connection that carries him, because
// the protocol cannot hold back a single stream. Who then gives way is said in fairness.h.
#pragma once

#include "hub/registry.h"

// One request: tells a device which control server to use.
awaitable<void> manager_serve(relay& hub, std::shared_ptr<connection> link);
// Login, then session id, heartbeats, and what the device reports.
awaitable<void> control_serve(relay& hub, std::shared_ptr<control_link> link);
// Login, then heartbeats and the streams' bytes on their way to users.
awaitable<void> data_serve(relay& hub, std::shared_ptr<data_link> link);
