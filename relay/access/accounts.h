// accounts.h - the users file: who there is, his password, and what he may reach.
//
//     ann:HASH:box, cam/8080    the ports that "box" has announced, and port 8080 of "cam"
//     bob:HASH:*                the announced ports of all devices
//     eve:HASH:admin            everything: any port, the devices themselves, the relay's pages
//     dan:HASH                  nothing yet
//     joe:*:box                 no password: only a proxy lets him in
//
// HASH is what "htpasswd -B" writes. That program drops the third field when it changes a password,
// so who has none gets nothing. Names of devices stand as in a path, "%20" for a blank. Lines that
// begin with "#" mean nothing.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct grant {
    std::string device;  // empty: any
    uint16_t port = 0;   // 0: those that the device has announced
};

struct account {
    std::string name, hash;  // no hash: there is no password
    bool admin = false;
    std::vector<grant> grants;

    // A port of a service; the device's own (MAINTENANCE_PORT) is for administrators.
    bool may_reach(std::string_view device, uint16_t port, bool announced) const;
};

using account_table = std::map<std::string, std::shared_ptr<const account>, std::less<>>;

// Nothing, with the reason in `error`, when it cannot be read or makes no sense.
std::optional<account_table> accounts_read(const std::string& path, std::string& error);
