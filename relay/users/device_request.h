// device_request.h - requests as a device wants them, with its parameters in the URI.
//
// A device takes the first place in the whole URI, path included, where a parameter's name occurs,
// and decodes nothing. So none of these names may stand in what a user has sent: the first
// character of each is percent-encoded there, which means the same to the service that gets the
// request. Only a stream's first payload has to be like that; what follows goes to the service as
// it is.
#pragma once

#include "hub/registry.h"

constexpr uint16_t MAINTENANCE_PORT = 10010;  // the device itself, always there

// A user's request in the forms that it may take.
struct device_heads {
    std::string
        opening;  // opens a stream by itself; empty when a device would not take it, and then:
    std::string refusal;  // the user's answer, if there is no other way
    std::string ask;      // the relay's own request in front of it, a HEAD; empty: not at that port
    std::string own;      // as the user has made it, for a stream that is open
};

// Makes them for the request to that path of the user's device and port; its priority goes to the
// user. Or the result is the user's answer.
std::string device_request_heads(user_link& user, std::string_view path,
                                 const http_request& request, device_heads& heads);
// A request that the device answers itself, in the order in which it got several of them. It has
// `size` bytes, and some hundred at least.
std::string device_echo_request(const device& owner, size_t size = 0);
// A header line of `size` bytes, ten at least, that means nothing to anybody.
std::string device_padding(size_t size);
