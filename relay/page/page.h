// page.h - what the relay knows, as a page for people and as JSON for programs.
#pragma once

#include "hub/registry.h"

// The answer to a request for either of them; empty when it asks for something else.
std::string page_answer(const relay& hub, const http_request& request);
