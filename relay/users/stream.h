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
// What has become of the relay's own request on a stream that stream_open has opened with it.
enum class swallowed : uint8_t {
    GOES_ON,           // it is answered, and the user's may follow
    NOTHING_FOLLOWS,   // this service takes one request on a connection, or not this one
    UNKNOWN,           // it had no chance to answer
    ANSWERED_INSTEAD,  // there is no way to the service at all, which the user has been told
};
awaitable<swallowed> stream_swallow(const relay& hub, std::shared_ptr<user_link> user);
// Until the stream, when there is one, is over. It is closed then, or kept for another request.
// False: this was another request's stream, and the request may go to the service once more.
awaitable<bool> stream_carry(const relay& hub, std::shared_ptr<user_link> user);
