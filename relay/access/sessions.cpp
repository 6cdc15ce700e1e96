#include "access/sessions.h"

#include <algorithm>

#include "base/text.h"

namespace {

constexpr size_t SESSIONS_MAX = 10'000, TOKEN_WORDS = 8;

bool over(const session& each, steady::time_point now) {
    return now - each.used >= SESSION_IDLE || now - each.began >= SESSION_MAX;
}

std::string_view name_of(std::string_view pair) {
    const size_t from = std::min(pair.find_first_not_of(" \t"), pair.size());
    const std::string_view name = pair.substr(from, pair.find_first_of("=;", from) - from);
    return name.substr(0, name.find_last_not_of(" \t") + 1);
}

}  // namespace

std::string session_table::begin(const account& whose, steady::time_point now) {
    if (all.size() >= SESSIONS_MAX) {
        std::erase_if(all, [now](const auto& each) { return over(each.second, now); });
    }
    if (all.size() >= SESSIONS_MAX) {
        const auto used = [](const auto& each) { return each.second.used; };
        all.erase(std::ranges::min_element(all, {}, used));
    }
    std::string token = random_hex(TOKEN_WORDS);
    all[token] = {whose.name, whose.hash, now, now};
    return token;
}

std::shared_ptr<const account> session_table::find(const std::string& token,
                                                   const account_table& accounts,
                                                   steady::time_point now) {
    const auto found = all.find(token);
    if (found == all.end()) {
        return nullptr;
    }
    const auto whose = accounts.find(found->second.name);
    if (whose == accounts.end() || whose->second->hash != found->second.hash ||
        over(found->second, now)) {
        all.erase(found);
        return nullptr;
    }
    found->second.used = now;
    return whose->second;
}

std::string cookies_without_session(std::string_view cookies, std::vector<std::string>* tokens) {
    std::string others;
    while (!cookies.empty()) {
        const size_t end = std::min(cookies.find(';'), cookies.size());
        const std::string_view pair = cookies.substr(0, end);
        cookies.remove_prefix(std::min(end + 1, cookies.size()));
        if (name_of(pair) != SESSION_COOKIE) {
            others.append(others.empty() ? "" : ";").append(pair);
        } else if (tokens != nullptr && pair.find('=') != pair.npos) {
            tokens->emplace_back(pair.substr(pair.find('=') + 1));
        }
    }
    return others.substr(std::min(others.find_first_not_of(' '), others.size()));
}
