// boxes.h - the boxes file: which devices there are. The wire has no secret but a device's id, so
// that is it, and everybody else knows the device by a name.
//
//     cellar 5c1e0f...a9
//     attic  77d0b2...03 mac=02:00:00:00:00:07 from=192.0.2.0/24,2001:db8::/32 same-address
//
// With "mac" it has to tell that one, with "from" it has to come from there, and with
// "same-address" all its connections have to come from one address, which carriers do not grant
// everybody.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "net/ranges.h"

struct known_box {
    std::string name, mac;            // no mac: any
    std::vector<address_range> from;  // none: from anywhere
    bool same_address = false;
};

using box_table = std::map<std::string, known_box, std::less<>>;  // by id

// Nothing, with the reason in `error`, when it cannot be read or makes no sense.
std::optional<box_table> boxes_read(const std::string& path, std::string& error);
// An id that nobody guesses.
std::string box_id_make();
// What the file says of a device. Nothing, with the reason, when it does not let it in; of one that
// it does not know that is so unless `open`, and then its id is its name.
std::optional<known_box> boxes_admit(const std::optional<box_table>& boxes, bool open,
                                     const std::string& id, const std::string& mac,
                                     const std::string& address, std::string& why);
