// gate.h - what stands between a request and what it asks for: the name that it has for the relay,
// and who has made it.
//
// Without a users file nobody is asked, and everybody may do everything. With one, a request is its
// user's by the session that his browser keeps (login.h), by a name and a password (Basic), or by
// the word of a proxy that has asked him.
#pragma once

#include "hub/registry.h"

// Finds out who he is. The user's answer, or nothing: he may go on. The request borrows from what
// nobody else changes meanwhile.
awaitable<std::string> gate_pass(relay& hub, std::shared_ptr<user_link> user,
                                 const http_request& request);
// Whether he may do what only those do who look after the relay.
bool gate_is_admin(const relay& hub, const user_link& user);
// Whether he may reach that port.
bool gate_may_reach(const relay& hub, const user_link& user, const device& owner, uint16_t port);
// His header lines as a service may see them: without what is meant for the relay.
std::string gate_fields(const relay& hub, const user_link& user, std::string_view headers);
