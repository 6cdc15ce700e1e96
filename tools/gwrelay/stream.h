// stream.h - one user's request on its way through a data connection, from the first frame on.
//
// A device cannot say that a service has closed, and there is no flow control per stream. So the
// relay finds the end of a response itself, closes the stream, and holds back whole connections.
#pragma once

#include "registry.h"

// Opens a stream to the user's device with these bytes, the request's head and what came of the
// body, and carries it to its end. Answers the user itself when there is no way to the device.
awaitable<void> stream_run(relay& hub, std::shared_ptr<user_link> user, std::string first_bytes);

// Receives from the user until he ends: into his stream while there is one, else to throw away.
awaitable<void> stream_upload(std::shared_ptr<user_link> user);

// Closes the stream, when one is open, on the device and forgets it. Late data is dropped then.
void stream_close(user_link& user, const char* reason);

// Whether something waits for the user of which he has taken nothing for too long.
bool stream_user_stalls(const relay& hub, const user_link& user);
