// stream.h - one user's request on its way through a data connection, from the first frame on.
//
// A device cannot say that a service has closed, and there is no flow control per stream. So the
// relay finds the end of a response itself, closes the stream, and holds back whole connections.
#pragma once

#include "registry.h"

// A frame of the stream's, or the answer to one of its echo requests, has come. False: the answer,
// which is not for the user.
bool stream_heard(user_link& user, uint32_t id);
// Opens a stream to the user's device with these bytes, the request's head and what came of the
// body. Without a way to the device the user is answered instead.
awaitable<void> stream_open(const relay& hub, std::shared_ptr<user_link> user, std::string bytes);
// Receives from the user until he ends: into his stream while there is one, else to throw away.
awaitable<void> stream_upload(std::shared_ptr<user_link> user);
// Until the stream, when there is one, is over. It is closed then.
awaitable<void> stream_carry(const relay& hub, std::shared_ptr<user_link> user);
