// fairness.h - who gives way when users take less than a device sends for them.
//
// No stream can be held back alone: a user whose outbox is full stops the reading of the data
// connection that carries him, and with it all others on that. So
// - who keeps others waiting and takes too little for too long is cut;
// - a device whose data connections have all been held back for a moment gets one of them back: the
//   stream is cut that has moved the least in that moment.
// A cut resets the user's connection, so that he cannot take what he has got for a whole response.
#pragma once

#include "hub/registry.h"

// The connection begins or ceases to be held back.
void fairness_hold(data_link& link, bool held);
// The device has got or lost a data connection.
void fairness_judge(device& owner);
// Cuts whoever has to give way. Many times in each of the times that the options set.
void fairness_look(relay& hub, steady::time_point now);
