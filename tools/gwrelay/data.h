// data.h - data connections: login, heartbeats, and the streams' bytes on their way to users.
//
// A user whose outbox is full stops the reading of the connection that carries him, because the
// protocol cannot hold back a single stream. The other connections of the device go on.
#pragma once

#include "registry.h"

awaitable<void> data_serve(relay& hub, std::shared_ptr<data_link> link);
void data_ended(relay& hub, const std::shared_ptr<data_link>& link);
