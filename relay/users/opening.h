// opening.h - streams that the relay opens by a request of its own, a HEAD for "/", so that the
// user's follows on them as he has made it: without a device's parameters, and with any method.
//
// The service has to keep its connection open for that. Whether it does is known per port from what
// it has done before. Where it does not, a user's request opens its stream itself.
#pragma once

#include "users/device_request.h"
#include "users/stream.h"

// Whether this request is worth it: it came to a name, or it cannot open a stream itself. One that
// may go only once does not try out what is not known, unless it has no other way.
bool opening_wanted(const options& settings, const user_link& user, const device_heads& heads);
// Opens a stream so, for the user's request to follow if the service goes on.
awaitable<swallowed> opening_run(const relay& hub, std::shared_ptr<user_link> user,
                                 std::string ask);
// The user's request on such a stream has been answered by the service, or not.
void opening_learn(user_link& user, bool works);
