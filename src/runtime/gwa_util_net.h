// gwa_util_net.h - names and interfaces.
//
// Threads: any.
// Results: 0, or -1 after the reason has been logged, unless said otherwise.
#pragma once

#include <cstddef>
#include <cstdint>

// Resolves `host` to its first IPv4 address, in network byte order into `address` and dotted into
// `text`; either may be null. 0, -1, or getaddrinfo's own non-zero result. May block for long.
int gwa_getaddrinfo(const char* host, uint32_t* address, char* text, size_t text_size);

// The hardware address of an interface. 0 or -1. SIOCGIFHWADDR, netdevice(7).
int gwa_interface_mac_get(const char* name, uint8_t (*mac)[6]);
// The IPv4 address of an interface, in network byte order; 0.0.0.0 when it has none. 0 or -1. Its
// messages go to standard output. SIOCGIFADDR, netdevice(7).
int gwa_interface_addr_get(const char* name, uint8_t (*address)[4]);
