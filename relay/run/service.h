// service.h - what a service manager and the relay tell each other, by the manager's own protocol:
// a datagram socket named in the environment, and listening sockets handed over with their names.
#pragma once

#include <string>
#include <string_view>

// "READY=1" and the like. Does nothing when nobody asks for it.
void service_notify(std::string_view state);
void service_notify_reloading();
// The listening socket of that name, which is the caller's; -1 when none has been handed over.
int service_socket(std::string_view name);
