// gwa_login_discovery.h - asks the address manager over HTTP where the control connection is to go.
//
// Threads: main thread; blocks for name resolution and for up to 20 s a server.
#pragma once

#include <cstdint>
#include <span>

// Asks up to four servers in turn. Always 0; success is a non-zero address (IPv4, host order) and a
// non-zero port.
int gwa_cntrl_ip_get(uint32_t* address, uint16_t* port);

// Takes address and port out of one reply of an address manager, `length` bytes and a terminator;
// the reply is cut for a moment and is whole again afterwards. The outputs change only on success.
// May resolve a name. 0 or -1.
int gwa_cntrl_ip_parse(char* reply, size_t length, uint32_t* address, uint16_t* port);
