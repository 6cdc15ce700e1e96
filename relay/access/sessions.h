// sessions.h - who has logged in on the page for that, by the cookie that his browser keeps.
//
// A session ends with its user's password, a week after its last use, a month after its beginning,
// and with the process.
#pragma once

#include <string>
#include <string_view>
#include <unordered_map>

#include "access/accounts.h"
#include "base/options.h"

constexpr std::string_view SESSION_COOKIE = "gwrelay";
constexpr std::chrono::hours SESSION_IDLE{24 * 7}, SESSION_MAX{24 * 30};

struct session {
    std::string name, hash;  // of the account
    steady::time_point began, used;
};

struct session_table {
    std::unordered_map<std::string, session> all;  // by token

    std::string begin(const account& whose, steady::time_point now);  // the token
    // Null: there is none, or not any more.
    std::shared_ptr<const account> find(const std::string& token, const account_table& accounts,
                                        steady::time_point now);
    void end(const std::string& token) { all.erase(token); }
};

// The value of a Cookie header without the relay's own; where `tokens` is given they go there.
std::string cookies_without_session(std::string_view cookies,
                                    std::vector<std::string>* tokens = nullptr);
