// logins.h - which devices may come in, and what of them is another one's.
#pragma once

#include "hub/registry.h"

struct box_login {
    known_box box;
    std::string id;
    text_pairs info;
};

// A frame as a log line has it.
std::string frame_text(const frame& got);
std::string address_of(const connection& link);
// What has logged in; nothing after refusing what is no login of this version, or not welcome.
std::optional<box_login> login_take(const relay& hub, connection& link, const frame& got,
                                    uint8_t version);
// It is in: its connection is watched from now on.
void login_done(const relay& hub, connection& link);
// Whether the device's control connection is another device's than the one at this address: it came
// from elsewhere and lives. The kernel asks; a device that has moved or lost its power does not
// answer.
awaitable<bool> is_taken(const relay& hub, std::shared_ptr<device> owner, std::string address);
// Why this is no data connection of a device that is there; null: it is one.
const char* data_why_not(const device* owner, const std::string& address);
// The name of a device that may come, by what little it tells as yet.
std::optional<std::string> boxes_answer(const relay& hub, const std::string& id,
                                        const std::string& address, std::string& why);
// Ends devices that the boxes file does not let in any more.
void devices_recheck(relay& hub);
// Answers a heartbeat. False: the frame is none.
bool heartbeat_answer(connection& link, const frame& got);
