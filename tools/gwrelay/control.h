// control.h - control connections: login, session id, heartbeats, and what devices report.
//
//     ACCEPTED -> LOGGED_IN   a device-info frame came and was answered with the order
//     [control_login] LOGGED_IN -> ENDED      the device left, sent nonsense, or logged in anew
#pragma once

#include "registry.h"

awaitable<void> control_serve(relay& hub, std::shared_ptr<control_link> link);
void control_ended(relay& hub, const std::shared_ptr<control_link>& link);
