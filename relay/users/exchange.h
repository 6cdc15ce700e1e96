// exchange.h - a user's request and its response, and what becomes of both connections after it.
//
// A user's connection serves one request after the other, in order. It goes on when both messages
// have ended where everybody sees their end; otherwise it closes after the response, which says so.
#pragma once

#include "users/device_request.h"

// A request whose head has been taken from what the user has sent.
void exchange_begin(const options& settings, user_link& user, const http_request& request);
// Bytes from the user: what belongs to the body is handed back, the rest waits for its turn.
std::string_view exchange_take_body(user_link& user, std::string_view bytes);
// Bytes of the response, which stay where they are until the user gets, all at once, what belongs
// to it.
void exchange_take_response(user_link& user, std::string_view bytes);
void exchange_pass_on(user_link& user);
// Sends a request to the device, its head and what has come of its body, and waits for the end of
// its response. The user is answered whatever happens.
awaitable<void> exchange_run(const relay& hub, std::shared_ptr<user_link> user, device_heads heads);
