// gwa_connection_order.h - the text in which the server orders data connections: five hosts and
// five ports.
//
// Threads: a pure function.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr int GWA_HOST_COUNT = 5;
constexpr size_t GWA_HOST_SIZE = 64;  // at most 63 characters
// The five pairs. Cleared by the caller.
struct gwa_host_list {
    char hosts[GWA_HOST_COUNT][GWA_HOST_SIZE] = {};
    uint16_t ports[GWA_HOST_COUNT] = {};
};
// Takes them out of a text that need be no JSON. 0 when all were read, else -1.
int gwa_host_list_get(const char* text, gwa_host_list* list);
