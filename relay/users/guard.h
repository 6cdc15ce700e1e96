// guard.h - what follows the opening frame of a stream, and tells whether its port is alive.
//
// When nothing listens on a port, a device says nothing and throws away as many further bytes of
// the data connection as the opening frame carried (oddity 21, exception 45). So an echo request to
// the device itself follows, exactly as long with its header, and a second one behind it. With a
// dead port the device answers only the second. Otherwise it answers both, the first one first: it
// sends frames of the same priority in the order in which it made them when none of a greater one
// waits.
//
// An echo request opens nothing on the device. Its answer comes under an id that no user's stream
// has and that names the stream, so nothing has to be kept of it, whether or not it ever comes.
#pragma once

#include "hub/registry.h"

constexpr uint32_t GUARD_FIRST = 1U << 30, GUARD_SECOND = 1U << 31;  // added to the stream's id
constexpr uint32_t STREAM_ID_MAX = GUARD_FIRST - 1;

// The stream that data of this id is about.
constexpr uint32_t guard_stream(uint32_t id) { return id & STREAM_ID_MAX; }
// Makes a request for the device long enough for an echo request to fit into its length.
void guard_lengthen(std::string& request, const device& owner);
// Sends both echo requests behind the opening frame, which carried `opening` bytes.
void guard_send(const user_link& user, size_t opening);
