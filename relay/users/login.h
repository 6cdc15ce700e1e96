// login.h - the page on which users log in, and out.
//
//     GET  /gwrelay.login?to=PLACE    the form; for who has logged in, what he may reach
//     POST /gwrelay.login             name, password and to in its body
//     POST /gwrelay.logout
//
// They are at the relay's domain alone, so that no page of a box can have a hand in it, and the
// cookie holds for all names under that. Browsers keep no such cookie for a domain without a dot
// ("localhost"), nor for an address: there the page is wherever a user asks for something.
#pragma once

#include "hub/registry.h"

constexpr char LOGIN_PAGE[] = "/gwrelay.login";

// Whether that is for this page.
bool login_is_asked(const relay& hub, const http_request& request);
// The answer. `user.who` is known by now, if he is.
awaitable<std::string> login_answer(relay& hub, std::shared_ptr<user_link> user,
                                    const http_request& request);
// Sends him there, and back when he has logged in.
std::string login_redirect(const relay& hub, const user_link& user, const http_request& request);
