#include "access/rules.h"

#include "base/options.h"

std::optional<access_rules> rules_read(const options& set, std::string& error) {
    access_rules rules;
    const auto proxies = ranges_parse(set.trusted_proxy);
    if (!proxies) {
        error = "--trusted-proxy takes addresses and ranges: " + set.trusted_proxy;
        return std::nullopt;
    }
    rules.proxies = *proxies;
    if (!set.proxy_user_header.empty() && (set.users_file.empty() || proxies->empty())) {
        error = "--proxy-user-header takes a --trusted-proxy and a --users-file";
        return std::nullopt;
    }
    if (!set.users_file.empty()) {
        rules.accounts = accounts_read(set.users_file, error);
        if (!rules.accounts) {
            return std::nullopt;
        }
    }
    if (!set.boxes_file.empty()) {
        rules.boxes = boxes_read(set.boxes_file, error);
        if (!rules.boxes) {
            return std::nullopt;
        }
    }
    return rules;
}
