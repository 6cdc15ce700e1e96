#include "users/gate.h"

#include <algorithm>

#include "users/device_request.h"
#include "users/login.h"
#include "users/names.h"

namespace {

constexpr char BASIC[] = "basic ";
constexpr char CHALLENGE[] = "WWW-Authenticate: Basic realm=\"gwrelay\", charset=\"UTF-8\"\r\n";

// The last header line of that name, which the proxy has written.
std::string_view last_header(std::string_view lines, std::string_view name) {
    std::string_view value;
    while (!lines.empty()) {
        const http_field field = http_field_take(lines);
        value = field.is(name) ? field.value : value;
    }
    return value;
}

std::string address_of(const user_link& user) { return user.name.substr(0, user.name.rfind(':')); }

// Whom a trusted proxy passes on: the last address in its list that is no proxy's itself.
void believe(const relay& hub, user_link& user, const http_request& request) {
    const std::string port = user.name.substr(user.name.rfind(':'));
    std::string_view list = last_header(request.headers, "x-forwarded-for");
    std::vector<std::string_view> addresses;
    while (!list.empty()) {
        addresses.push_back(http_word_take(list));
    }
    const auto is_proxy = [&hub](std::string_view address) {
        return ranges_have(hub.entry.rules.proxies, address);
    };
    const auto user_at = std::find_if_not(addresses.rbegin(), addresses.rend(), is_proxy);
    asio::error_code failed;
    if (user_at != addresses.rend()) {
        const auto address = asio::ip::make_address(std::string(*user_at), failed);
        user.name = failed ? user.name : address.to_string() + port;
    }
    const std::string_view scheme = last_header(request.headers, "x-forwarded-proto");
    if (!scheme.empty()) {
        user.scheme = same_word(scheme, "https") ? "https" : "http";
    }
}

// Whether the Host is one that leads here. A page elsewhere whose own name leads to this machine
// has another one.
bool is_ours(const relay& hub, std::string_view host) {
    const std::string name = host_name(host), &domain = hub.settings.domain;
    asio::error_code no_address;
    const bool bracketed = name.starts_with('[') && name.ends_with(']');
    asio::ip::make_address(bracketed ? name.substr(1, name.size() - 2) : name, no_address);
    return name.empty() || name == domain || name.ends_with("." + domain) || !no_address ||
           name == "localhost" || name.ends_with(".localhost");
}

std::shared_ptr<const account> by_session(relay& hub, const http_request& request) {
    std::vector<std::string> tokens;
    cookies_without_session(http_header(request.headers, "cookie"), &tokens);
    for (const std::string& token : tokens) {
        if (auto found = hub.entry.sessions.find(token, *hub.entry.rules.accounts, steady::now())) {
            return found;
        }
    }
    return nullptr;
}

// The user's answer when what he says is wrong.
awaitable<std::string> by_password(relay& hub, std::shared_ptr<user_link> user,
                                   std::string_view words) {
    const std::string both = base64_decode(words);
    const size_t colon = std::min(both.find(':'), both.size());
    const std::string name = both.substr(0, colon);
    const verdict found =
        co_await password_check(hub.entry.passwords, *hub.entry.rules.accounts, name,
                                both.substr(std::min(colon + 1, both.size())), address_of(*user));
    if (found == verdict::TOO_MANY) {
        co_return http_reply(429, "text/plain", "Too many tries.\n", "Retry-After: 10\r\n");
    }
    const auto& accounts = *hub.entry.rules.accounts;
    const auto whose = accounts.find(name);
    if (found == verdict::WRONG || whose == accounts.end()) {
        log_line(PROBLEM, "%s: wrong password for %s", user->name.c_str(), log_text(name).c_str());
        co_return http_reply(401, "text/plain", "Wrong name or password.\n", CHALLENGE);
    }
    user->who = whose->second;
    user->by_password = true;
    co_return std::string();
}

// Browsers go to the page for it; programs are told what they lack.
std::string ask(const relay& hub, const user_link& user, const http_request& request) {
    const bool shown =
        http_header(request.headers, "accept").find("text/html") != std::string::npos;
    if (shown && (request.method == "GET" || request.method == "HEAD")) {
        return login_redirect(hub, user, request);
    }
    // A script of a page is no reason for the browser's own question.
    const bool browser = !http_header(request.headers, "sec-fetch-mode").empty();
    return http_reply(401, "text/plain", "A name and a password, please.\n",
                      browser ? "" : CHALLENGE);
}

// Whether a page elsewhere has made the browser do this, to change something. Ports of one device
// may do so with each other.
bool is_foreign(const relay& hub, const http_request& request) {
    const bool reads =
        request.method == "GET" || request.method == "HEAD" || request.method == "OPTIONS";
    const std::string_view origin = http_header(request.headers, "origin");
    const std::string_view host = http_header(request.headers, "host");
    const std::string_view site = http_header(request.headers, "sec-fetch-site");
    if (reads && !request.upgrades) {
        return false;
    }
    if (origin.empty()) {
        return same_word(site, "cross-site") || same_word(site, "same-site");
    }
    const size_t slashes = origin.find("://");
    const std::string_view from = slashes == origin.npos ? "" : origin.substr(slashes + 3);
    const auto asks = names_find(hub, from), asked = names_find(hub, host);
    return lower_text(from) != lower_text(host) &&
           !(asks && asked && asks->owner && asks->owner == asked->owner);
}

awaitable<std::string> identify(relay& hub, std::shared_ptr<user_link> user,
                                const http_request& request, bool proxied) {
    const auto& accounts = *hub.entry.rules.accounts;
    const std::string_view told =
        proxied && !hub.settings.proxy_user_header.empty()
            ? last_header(request.headers, lower_text(hub.settings.proxy_user_header))
            : std::string_view();
    if (!told.empty()) {
        const auto found = accounts.find(told);
        user->who = found == accounts.end() ? nullptr : found->second;
        co_return user->who ? "" : http_text_reply(403, "The users file does not have you.");
    }
    user->who = by_session(hub, request);
    user->by_session = user->who != nullptr;
    const std::string_view words = http_header(request.headers, "authorization");
    if (user->who == nullptr && same_word(words.substr(0, sizeof BASIC - 1), BASIC)) {
        co_return co_await by_password(hub, user, words.substr(sizeof BASIC - 1));
    }
    co_return std::string();
}

}  // namespace

awaitable<std::string> gate_pass(relay& hub, std::shared_ptr<user_link> user,
                                 const http_request& request) {
    const std::string_view host = http_header(request.headers, "host");
    const auto& proxies = hub.entry.rules.proxies;
    const bool proxied = !proxies.empty() && ranges_have(proxies, user->peer);
    user->who = nullptr;
    user->by_session = user->by_password = false;
    if (proxied) {
        believe(hub, *user, request);
    }
    if (request.path == "/healthz" && !names_find(hub, host)) {
        co_return std::string();
    }
    if (!is_ours(hub, host)) {
        co_return http_text_reply(
            421, "Here is " + hub.settings.domain + ", and names under it; --domain says so.");
    }
    const bool asks = hub.entry.rules.accounts.has_value();
    if (is_foreign(hub, request) && (asks || !names_find(hub, host))) {
        co_return http_text_reply(403, "Only a page from here may ask for this.");
    }
    if (!asks) {
        co_return std::string();
    }
    const std::string refused = co_await identify(hub, user, request, proxied);
    if (!refused.empty()) {
        co_return refused;
    }
    if (login_is_asked(hub, request)) {
        co_return co_await login_answer(hub, user, request);
    }
    co_return user->who ? "" : ask(hub, *user, request);
}

bool gate_is_admin(const relay& hub, const user_link& user) {
    return !hub.entry.rules.accounts || (user.who != nullptr && user.who->admin);
}

bool gate_may_reach(const relay& hub, const user_link& user, const device& owner, uint16_t port) {
    if (gate_is_admin(hub, user)) {
        return true;
    }
    const bool announced =
        std::ranges::any_of(owner.ports, [port](const auto& each) { return each.second == port; });
    return user.who != nullptr && port != MAINTENANCE_PORT &&
           user.who->may_reach(owner.id, port, announced);
}

std::string gate_fields(const relay& hub, const user_link& user, std::string_view headers) {
    const std::string told = lower_text(hub.settings.proxy_user_header);
    std::string fields;
    while (!headers.empty()) {
        const http_field field = http_field_take(headers);
        const bool ours =
            (field.is("authorization") && user.by_password) || (!told.empty() && field.is(told));
        if (field.is("cookie")) {
            const std::string others = cookies_without_session(field.value);
            fields += others.empty() ? "" : std::string(field.name) + ": " + others + "\r\n";
        } else if (!ours) {
            fields.append(field.line).append("\r\n");
        }
    }
    return fields;
}
