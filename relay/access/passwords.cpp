#include "access/passwords.h"

#include <crypt.h>
#include <openssl/evp.h>

#include <asio/co_spawn.hpp>
#include <asio/use_awaitable.hpp>
#include <random>

#include "net/ranges.h"

namespace {

constexpr milliseconds TRY_EVERY{6000};
constexpr int TRIES = 10;
constexpr size_t ADDRESSES_MAX = 4096, PROVEN_MAX = 1024, WAITING_MAX = 32, PASSWORD_MAX = 1024;
constexpr std::chrono::minutes PROVEN_FOR{10};

std::array<unsigned, 8> random_words() {
    std::random_device random;
    std::array<unsigned, 8> words{};
    for (unsigned& word : words) {
        word = random();
    }
    return words;
}

std::string digest(const password_checker& checker, const std::string& name,
                   const std::string& password) {
    std::string text(reinterpret_cast<const char*>(checker.salt.data()), sizeof checker.salt);
    text.append(name).append(1, '\0').append(password);
    unsigned char made[EVP_MAX_MD_SIZE];
    unsigned size = 0;
    if (EVP_Digest(text.data(), text.size(), made, &size, EVP_sha256(), nullptr) != 1) {
        return {};
    }
    return {reinterpret_cast<const char*>(made), size};
}

// Runs on the thread.
asio::awaitable<bool> matches(std::string hash, std::string password) {
    const auto data = std::make_unique<crypt_data>();
    const char* const made = crypt_r(password.c_str(), hash.c_str(), data.get());
    co_return made != nullptr&& hash == made;
}

// Whose password nobody knows: with the hash of somebody, so that it takes the time of others.
std::string hash_of_nobody(const account_table& accounts) {
    for (const auto& [name, each] : accounts) {
        if (!each->hash.empty()) {
            return each->hash;
        }
    }
    return {};
}

void prove(password_checker& checker, const std::string& key, const std::string& hash) {
    const auto now = steady::now();
    if (checker.proven.size() >= PROVEN_MAX) {
        std::erase_if(checker.proven, [now](const auto& each) { return each.second.until < now; });
    }
    if (checker.proven.size() < PROVEN_MAX && !key.empty()) {
        checker.proven[key] = {hash, now + PROVEN_FOR};
    }
}

}  // namespace

bool try_limit::take(const std::string& address, steady::time_point now) {
    if (spent_until.size() >= ADDRESSES_MAX) {
        std::erase_if(spent_until, [now](const auto& each) { return each.second <= now; });
    }
    const auto found = spent_until.find(address);
    if (found == spent_until.end() && spent_until.size() >= ADDRESSES_MAX) {
        return false;
    }
    const auto until = std::max(found == spent_until.end() ? now : found->second, now) + TRY_EVERY;
    if (until - now > TRIES * TRY_EVERY) {
        return false;
    }
    spent_until[address] = until;
    return true;
}

void try_limit::give_back(const std::string& address) {
    if (const auto found = spent_until.find(address); found != spent_until.end()) {
        found->second -= TRY_EVERY;
    }
}

password_checker::password_checker() : salt(random_words()) {}

asio::awaitable<verdict> password_check(password_checker& checker, const account_table& accounts,
                                        std::string name, std::string password,
                                        std::string address) {
    const auto found = accounts.find(name);
    const bool has_password = found != accounts.end() && !found->second->hash.empty();
    const std::string hash = has_password ? found->second->hash : hash_of_nobody(accounts);
    const std::string key = digest(checker, name, password), group = address_group(address);
    if (const auto known = checker.proven.find(key); known != checker.proven.end() &&
                                                     has_password && known->second.hash == hash &&
                                                     steady::now() < known->second.until) {
        co_return verdict::RIGHT;
    }
    const bool fits = password.size() <= PASSWORD_MAX && password.find('\0') == password.npos;
    if (!fits) {
        co_return verdict::WRONG;
    }
    if (checker.waiting >= WAITING_MAX || !checker.tries.take(group, steady::now())) {
        co_return verdict::TOO_MANY;
    }
    ++checker.waiting;
    const bool same = co_await asio::co_spawn(checker.thread, matches(hash, std::move(password)),
                                              asio::use_awaitable);
    --checker.waiting;
    if (!same || !has_password) {
        co_return verdict::WRONG;
    }
    checker.tries.give_back(group);
    prove(checker, key, hash);
    co_return verdict::RIGHT;
}
