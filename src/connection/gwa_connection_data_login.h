// gwa_connection_data_login.h - the login of a data connection and its settings for relaying.
//
// Threads: the worker, which it blocks.
#pragma once

#include "connection/gwa_connection_data_record.h"

// Up to three attempts. True: the socket is logged in and registered. False: no login, for whatever
// reason; after three failures the address is a fresh one.
bool gwa_connection_data_login(gwa_connection_data* conn);
