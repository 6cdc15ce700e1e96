// gwa_connection_data_in.h - the input pass of a data connection.
//
// Threads: the worker.
#pragma once

#include "connection/gwa_connection_data_record.h"

// Receives and handles frames until the socket is drained or the budget of one pass is used up;
// input.more tells which. A frame may be split anywhere. CLOSED on any failure.
gwa_step gwa_connection_data_remote_in_handle(gwa_connection_data* conn);
