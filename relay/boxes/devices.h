// devices.h - what devices talk to: the address manager and their control connections.
#pragma once

#include "hub/registry.h"

// One request: tells a device which control server to use.
awaitable<void> manager_serve(relay& hub, std::shared_ptr<connection> link);
// Login, then session id, heartbeats, and what the device reports.
awaitable<void> control_serve(relay& hub, std::shared_ptr<control_link> link);
