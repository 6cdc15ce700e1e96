// data.h - data connections, on which the bytes of devices' services come to their users.
//
// A user whose outbox is full stops the reading of the data connection that carries him, because
// the protocol cannot hold back a single stream. Who then gives way is said in fairness.h.
#pragma once

#include "hub/registry.h"

// Login, then heartbeats and the streams' bytes on their way to users.
awaitable<void> data_serve(relay& hub, std::shared_ptr<data_link> link);
