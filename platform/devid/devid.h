// devid.h - the box's device library, as far as gwad uses it. A box brings its own; this stand-in
// serves machines that have none.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Fills `buffer` with a stable, terminated id of this box. The stand-in takes the machine id file
// where there is one, else a hardware address, by preference one that is the same after every boot:
// permanent and of a real device (hardware_address.h). 0, or -1 when there is neither.
int create_boxid(char* buffer, int size);

// What a local service announces: one datagram of exactly these 8 bytes, both fields in host order,
// sent to the Unix datagram socket that port_info_init has bound. Modules: 3 the box's web page,
// 4 "ubq", 5 "kctl".
struct port_info_announcement {
    uint32_t module;
    uint32_t port;
};

// Creates the socket that receives announcements and binds it at `path`, where there must be no
// file. A non-blocking descriptor, which is the caller's to close, or -1.
int port_info_init(const char* path);
// Receives one announcement into `buffer`, 8 bytes. 0, or -1 when none waits (EAGAIN) or when the
// datagram has another size, which is then gone (EMSGSIZE).
int port_info_recv(int fd, void* buffer);

#ifdef __cplusplus
}
#endif
