// front_door.h - HTTP for users: the status pages, small calls, and the way to a device's ports.
//
// A request to a device's name (names.h) goes to that device as it is. Any other host is the relay:
//
//     /                                        the status page, /status.json the same as JSON
//     /<device id>/<port>/<path>               a request to that port of the device
//     /<device id>/<port>/<path>?gwrelay-pri=N the same with a stream priority
//     POST /<device id>/report-times?t1=&t2=   sets the device's reporting times
#pragma once

#include "hub/registry.h"

constexpr char DRAINING[] = "The relay is about to end.";

awaitable<void> front_door_serve(relay& hub, std::shared_ptr<user_link> user);
