// access_log.h - a line for each request, as web servers write it, written by a thread of its own.
//
//     ADDRESS - USER [TIME] "METHOD TARGET VERSION" STATUS BYTES "REFERER" "AGENT" "DEVICE" PORT
//
// That is the combined format with two fields behind it. The bytes are those for the user, with
// their head; a request that nobody has answered has the status 499. When the disk is too slow the
// oldest lines that wait are lost, not the users' time.
#pragma once

#include "hub/registry.h"

// Opens the file, anew when it is open already. Empty: no log any more. False: it cannot be opened,
// which has been logged, and the one before goes on.
bool access_log_open(const std::string& path);

// What is known of a request at its beginning. Taken before its head is thrown away.
struct access_record {
    std::string asked, said;  // the request line; referer and agent, in quotes
    uint64_t bytes_before = 0;

    access_record(const user_link& user, const http_request& request);
};
// Once it is over: the line, and the count for the metrics.
void access_log_write(relay& hub, const user_link& user, const access_record& record);
