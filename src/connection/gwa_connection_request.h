// gwa_connection_request.h - dispatch of data frames: to a stream that exists, to a new stream for
// a request that names this box and a local port, or to the daemon itself on the maintenance port.
//
// Threads: the worker of the data connection.
#pragma once

#include <cstdint>

#include "connection/gwa_connection_data_record.h"

// Passes on a payload of `length` bytes, which stays the caller's. `header` is in host order.
// Rejections are silent towards the server.
void gwa_connection_remote_data_parse(gwa_connection_data* conn, const gwa_header* header,
                                      const uint8_t* payload, uint32_t length);
