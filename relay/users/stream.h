// stream.h - one user's request on its way through a data connection, from the first frame on.
//
// A device cannot say that a service has closed, and there is no flow control per stream. So the
// relay finds the end of a response itself, closes the stream, and holds back whole connections.
#pragma once

#include "hub/registry.h"

// A frame of the stream's, or the answer to one of its echo requests, has come. False: the answer,
// which is not for the user.
bool stream_heard(user_link& user, uint32_t id);
// Opens a stream to the user's device with these bytes, the request's head, and with what has come
// of the body. Without a way to the device the user is answered instead.
awaitable<void> stream_open(const relay& hub, std::shared_ptr<user_link> user, std::string bytes);
// More of the request, on the stream that there is.
void stream_send(user_link& user, std::string_view bytes);
// Receives from the user until he ends: into his stream while it lacks something of his request,
// and else for the request that comes next.
awaitable<void> stream_upload(std::shared_ptr<user_link> user);
// Until the stream, when there is one, is over. It is closed then, or kept for another request.
// False: this was another request's stream, and the request may go to the service once more.
awaitable<bool> stream_carry(const relay& hub, std::shared_ptr<user_link> user);
