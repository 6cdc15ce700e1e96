// lifecycle.h - what signals do to the running relay.
//
//     SIGHUP   reads the configuration again; nobody loses anything. The access log is opened anew.
//     SIGUSR1  opens the access log anew, after somebody has moved it away
//     SIGTERM  drains: no new users and requests (503), those under way have --drain
//     SIGINT   ends at once, and so does any of the two while the relay drains
#pragma once

#include "hub/registry.h"

// `live` is what the hub's settings refer to.
awaitable<void> lifecycle_serve(relay& hub, options& live, int argc, const char* const* argv);
