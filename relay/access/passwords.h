// passwords.h - checks passwords, which takes a processor some 50 ms each on purpose: on a thread
// of its own, not for each request of a program anew, and not as often as a stranger would like.
#pragma once

#include <array>
#include <asio/awaitable.hpp>
#include <asio/thread_pool.hpp>
#include <unordered_map>

#include "access/accounts.h"
#include "base/options.h"

// Ten tries of an address at once, then one every six seconds. What was right is given back.
struct try_limit {
    std::unordered_map<std::string, steady::time_point> spent_until;  // by address

    // False: it has to wait.
    bool take(const std::string& address, steady::time_point now);
    void give_back(const std::string& address);
};

struct password_checker {
    struct proof {
        std::string hash;  // of the account, in case that changes
        steady::time_point until;
    };
    asio::thread_pool thread{1};
    size_t waiting = 0;
    try_limit tries;
    std::unordered_map<std::string, proof> proven;  // by a digest of name and password
    const std::array<unsigned, 8> salt;             // of the digests

    password_checker();
};

enum class verdict : uint8_t { RIGHT, WRONG, TOO_MANY };

// TOO_MANY: it has not been looked at; he comes again in some seconds. It takes as long when there
// is nobody of that name.
asio::awaitable<verdict> password_check(password_checker& checker, const account_table& accounts,
                                        std::string name, std::string password,
                                        std::string address);
