// kept.h - streams between two requests: one has ended cleanly, and the service waits for the next.
//
// What follows on a stream goes to the service as it is, so the next request saves the box a local
// connection and the relay the question whether the port is alive. But a service's close is not
// told. So a stream is kept for a short time only, what goes over it may be repeated, and a port
// whose service has left a request unanswered is left alone for some minutes.
//
// A stream counts as open at its device while it is kept. It is kept on its data connection and
// goes with it.
#pragma once

#include "hub/registry.h"

// After a complete response: keeps the user's stream, which is his no longer. False: it is to be
// closed.
bool kept_add(const options& settings, user_link& user);
// Gives the user a kept stream to his port when there is one: the one that he has had before, or
// another one that has been silent for a moment, in which late bytes for someone else would have
// shown. False: there is none.
bool kept_take(const options& settings, const std::shared_ptr<user_link>& user);
// The stream that the user had taken has left his request unanswered.
void kept_failed(user_link& user);
// Data has come for a stream without a user: nobody may get it, now or later.
void kept_spoke(data_link& link, uint32_t id);
// Closes those whose time is over.
void kept_expire(data_link& link, steady::time_point now);
// Closes the one to that port that has been kept for the longest. False: there is none.
bool kept_give_way(const device& owner, uint16_t port);
// Closes those that have been kept for the longest until the connection has fewer streams than
// that.
void kept_make_room(data_link& link, size_t streams);
