// rules.h - what the operator's files and options say of who may come in, read all at once.
#pragma once

#include "access/accounts.h"
#include "access/boxes.h"
#include "net/ranges.h"

struct options;

struct access_rules {
    std::optional<account_table> accounts;  // nothing: users are not asked
    std::optional<box_table> boxes;         // nothing: any device may come
    std::vector<address_range> proxies;     // whose word on a user counts
};

// Nothing, with the reason in `error`, when something makes no sense.
std::optional<access_rules> rules_read(const options& set, std::string& error);
