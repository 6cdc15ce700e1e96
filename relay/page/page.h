// page.h - the relay's page: its files, what the relay knows as JSON, and what the page may ask
// for.
#pragma once

#include "hub/registry.h"

// The answer to a request for any of these; empty when it asks for something else. When it is for
// the page's events, `user.watches` is set: they follow the answer.
std::string page_answer(const relay& hub, user_link& user, const http_request& request);
