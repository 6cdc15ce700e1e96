// gwa_connection_data_close.h - how a data connection ends: everything it owns is freed, then its
// worker starts over.
//
// Threads: the worker of the data connection.
#pragma once

#include "connection/gwa_connection.h"

// Frees streams, queued frames, a half-read payload, the poller and the socket.
void gwa_connection_data_free(gwa_connection_data* conn);
// Frees everything and jumps to the worker's restart point. Abandons the frames in between, which
// therefore hold no lock and nothing that needs a destructor.
[[noreturn]] void gwa_connection_data_close(gwa_connection_data* conn);
