// gwa_connection_cntl_command.h - the commands that the server sends on the control connection.
//
// Threads: main thread.
#pragma once

#include <cstdint>

#include "connection/gwa_connection_cntl_record.h"

// Checks one header, `bytes` as received and terminated behind it, reads the payload where the
// command has one, and carries the command out. 0, or -1 when the frame was not handled; its
// payload is then still in the socket.
int gwa_connection_cntl_proto_handle(gwa_connection_cntl* cntl,
                                     const uint8_t (&bytes)[GWA_HEADER_SIZE + 1]);

// Parses an order for data connections and has it handed to the workers, which takes five seconds.
void gwa_connection_cntl_remote_data_parse(gwa_connection_cntl* cntl, const char* text);
