// gwa_connection_request_debug.h - the maintenance port: echo, log level, diagnostic.
//
// Threads: the worker of the data connection; the diagnostic blocks it for the run of its script
//          and up to 54 s more.
#pragma once

#include "connection/gwa_stream.h"

constexpr int GWA_SELF_DEBUG_PORT = 10010;

// Answers one maintenance request for `uri`. The stream record lends its id and priority and stays
// the caller's.
void gwa_self_debug(const gwa_stream* stream, const char* uri);
