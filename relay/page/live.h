// live.h - what changes on the page, told to those who look at it: server-sent events, one a second
// at most, and none while nothing changes.
#pragma once

#include "hub/registry.h"

// Tells until the viewer leaves. `user.watches` says what about: nothing in it means the list, with
// everything at first and then the rows that have changed; "device=ID", as often as wanted, means
// all that is known of these. Who takes the last event late gets the next one later.
awaitable<void> page_watch(relay& hub, std::shared_ptr<user_link> user);
