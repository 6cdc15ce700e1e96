// device_request.h - requests as a device wants them, with its parameters in the URI.
//
// A device takes the first place in the whole URI, path included, where a parameter's name occurs,
// and decodes nothing. So none of these names may stand in what a user has sent: the first
// character of each is percent-encoded there, which means the same to the service that gets the
// request.
#pragma once

#include "hub/registry.h"

constexpr uint16_t MAINTENANCE_PORT = 10010;  // the device itself, always there

// The head of the user's request to that path of his device and port, as the device gets it, goes
// to `head`, its priority to the user. Or the result is the user's answer.
std::string device_request_head(user_link& user, std::string_view path, const http_request& request,
                                std::string& head);
// A request that the device answers itself, in the order in which it got several of them. It has
// `size` bytes, and some hundred at least.
std::string device_echo_request(const device& owner, size_t size = 0);
// A header line of `size` bytes, ten at least, that means nothing to anybody.
std::string device_padding(size_t size);
