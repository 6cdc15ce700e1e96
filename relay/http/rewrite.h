// rewrite.h - what a user and a service see of each other, where that differs.
//
// A user reaches a service by a name of its own, or by a path of the relay in front of the
// service's own paths. What the service says of places has to hold for the user: redirects and
// cookies.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "http/http.h"

struct http_view {
    std::string address;       // the user's
    std::string scheme;        // of his connection
    std::string user_host;     // the Host that he has asked; empty when he has named none
    std::string service_host;  // the Host that the service is told
    std::string prefix;      // of its paths, as the user has it: "/box/80", or nothing with a name
    uint16_t port = 0;       // the service's
    std::string parameters;  // which a device wants in the URI, and a service may repeat
};

// A header line of the user's, with its end, as the service gets it; or nothing.
std::string rewrite_field(const http_view& view, const http_field& field);
// What the service is told of the user, as whole lines. It believes the relay, so nothing that the
// user says of himself goes through.
std::string rewrite_forwarded(const http_view& view);
// The head of a response as the user gets it.
std::string rewrite_response(const http_view& view, std::string_view head);
