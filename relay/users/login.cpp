#include "users/login.h"

#include <algorithm>

#include "page/page.h"
#include "users/gate.h"
#include "users/names.h"

namespace {

constexpr char LOGOUT[] = "/gwrelay.logout";
constexpr size_t FORM_MAX = 4096;
constexpr char HEAD_OF_PAGE[] = R"(<!DOCTYPE html>
<html lang="en"><head><meta charset="utf-8"><title>gwrelay</title>
<meta name="viewport" content="width=device-width, initial-scale=1">
<style>:root{color-scheme:light dark}body{font:1rem/1.5 system-ui,sans-serif;max-width:24rem;
margin:12vh auto;padding:0 1rem}label{display:block;margin:.8rem 0 .2rem}input,button{font:inherit;
padding:.5rem;width:100%;box-sizing:border-box}button{margin-top:1.2rem}</style></head><body><main>
)";
constexpr char END_OF_PAGE[] = "</main></body></html>\n";

// Whether one login holds for all names: no browser takes a cookie for a whole top-level domain.
bool is_shared(const relay& hub, std::string_view host) {
    const std::string name = host_name(host), &domain = hub.settings.domain;
    return domain.find('.') != domain.npos && (name == domain || name.ends_with("." + domain));
}

// The port that the user has named, with its colon.
std::string port_of(std::string_view host) {
    const size_t colon = host.rfind(':');
    const bool has_port = colon != host.npos && host.find(']', colon) == host.npos;
    return std::string(has_port ? host.substr(colon) : "");
}

std::string page_reply(const relay& hub, int code, const std::string& text,
                       const std::string& headers = {}) {
    // Where a form leads, redirects included.
    const std::string safety =
        "Content-Security-Policy: default-src 'none'; style-src 'unsafe-inline'; base-uri 'none'; "
        "form-action 'self' " +
        hub.settings.domain + ":* *." + hub.settings.domain +
        ":*; frame-ancestors 'none'\r\nX-Content-Type-Options: nosniff\r\nX-Frame-Options: DENY\r\n"
        "Referrer-Policy: same-origin\r\nCache-Control: no-store\r\n";
    return http_reply(code, "text/html; charset=utf-8", HEAD_OF_PAGE + text + END_OF_PAGE,
                      safety + headers);
}

std::string form(const relay& hub, int code, const std::string& to, const std::string& said) {
    return page_reply(
        hub, code,
        "<h1>Log in</h1>\n" + (said.empty() ? "" : "<p role=\"alert\">" + said + "</p>\n") +
            "<form method=\"post\" action=\"" + LOGIN_PAGE +
            "\"><label for=\"n\">Name</label><input id=\"n\" name=\"name\" "
            "autocomplete=\"username\" "
            "autocapitalize=\"none\" required autofocus><label for=\"p\">Password</label><input "
            "id=\"p\" name=\"password\" type=\"password\" autocomplete=\"current-password\" "
            "required><input type=\"hidden\" name=\"to\" value=\"" +
            html_escape(to) + "\"><button>Log in</button></form>\n");
}

// What he may reach, and the way out.
std::string home(const relay& hub, const user_link& user, const http_request& request) {
    const std::string port = port_of(http_header(request.headers, "host"));
    std::string links;
    for (const auto& [id, box] : hub.devices) {
        for (const auto& [what, number] : box->ports) {
            if (!box->label.empty() && gate_may_reach(hub, user, *box, number)) {
                const std::string place = user.scheme + "://" +
                                          label_with_port(box->label, number) + "." +
                                          hub.settings.domain + port + "/";
                links += "<li><a href=\"" + html_escape(place) + "\">" + html_escape(box->name) +
                         " " + std::to_string(number) + "</a></li>\n";
            }
        }
    }
    return page_reply(hub, 200,
                      "<h1>" + html_escape(user.who->name) + "</h1>\n" +
                          (links.empty() ? "<p>There is nothing to open at present.</p>\n"
                                         : "<ul>\n" + links + "</ul>\n") +
                          "<form method=\"post\" action=\"" + LOGOUT +
                          "\"><button>Log out</button></form>\n");
}

// Whether a place to go to after the login is one of this relay's.
bool leads_here(const relay& hub, const user_link& user, std::string_view place) {
    if (http_has_control(place)) {
        return false;
    }
    if (place.starts_with('/')) {
        return !place.starts_with("//") && !place.starts_with("/\\");
    }
    const std::string start = user.scheme + "://";
    if (!place.starts_with(start)) {
        return false;
    }
    const std::string_view rest = place.substr(start.size());
    return is_shared(hub, rest.substr(0, rest.find_first_of("/?#\\")));
}

std::string see(const std::string& place, const std::string& headers) {
    return http_reply(303, "text/plain", "", "Location: " + place + "\r\n" + headers);
}

// `token` empty: the cookie goes.
std::string cookie_line(const relay& hub, const user_link& user, std::string_view host,
                        const std::string& token) {
    const auto life = token.empty() ? 0 : std::chrono::seconds(SESSION_MAX).count();
    return "Set-Cookie: " + std::string(SESSION_COOKIE) + "=" + token +
           "; Path=/; Max-Age=" + std::to_string(life) + "; HttpOnly; SameSite=Lax" +
           (is_shared(hub, host) ? "; Domain=" + hub.settings.domain : "") +
           (user.scheme == "https" ? "; Secure" : "") + "\r\n";
}

std::string form_field(std::string body, std::string_view name) {
    std::ranges::replace(body, '+', ' ');
    return query_take(body, name).value_or("");
}

awaitable<std::string> log_in(relay& hub, std::shared_ptr<user_link> user, std::string host,
                              std::string body) {
    const std::string name = form_field(body, "name"), to = form_field(body, "to");
    const auto& accounts = hub.entry.rules.accounts;
    const std::string address = user->name.substr(0, user->name.rfind(':'));
    const verdict found = co_await password_check(hub.entry.passwords, *accounts, name,
                                                  form_field(body, "password"), address);
    if (found == verdict::TOO_MANY) {
        co_return form(hub, 429, to, "Too many tries. Wait for a minute.");
    }
    const auto whose = accounts->find(name);
    if (found == verdict::WRONG || whose == accounts->end()) {
        log_line(PROBLEM, "%s: wrong password for %s", user->name.c_str(), log_text(name).c_str());
        co_return form(hub, 403, to, "Wrong name or password.");
    }
    log_line(EVENT, "%s: %s has logged in", user->name.c_str(), log_text(name).c_str());
    const std::string token = hub.entry.sessions.begin(*whose->second, steady::now());
    co_return see(leads_here(hub, *user, to) ? to : "/", cookie_line(hub, *user, host, token));
}

std::string log_out(relay& hub, const user_link& user, const http_request& request) {
    std::vector<std::string> tokens;
    cookies_without_session(http_header(request.headers, "cookie"), &tokens);
    for (const std::string& token : tokens) {
        hub.entry.sessions.end(token);
    }
    return see(LOGIN_PAGE, cookie_line(hub, user, http_header(request.headers, "host"), ""));
}

// The request's body; nothing when it does not come whole.
awaitable<std::string> body_of(const relay& hub, std::shared_ptr<user_link> user, size_t length) {
    user->expect_within(hub.settings.login_timeout, "said nothing useful in time");
    while (user->input.size() < length && !user->closed && !user->user_ended) {
        co_await user->changed.wait();
    }
    user->deadline = NEVER;
    co_return user->input.size() < length ? "" : user->input.substr(0, length);
}

}  // namespace

bool login_is_asked(const relay& hub, const http_request& request) {
    const std::string_view host = http_header(request.headers, "host");
    return (request.path == LOGIN_PAGE || request.path == LOGOUT) &&
           (!is_shared(hub, host) || host_name(host) == hub.settings.domain);
}

awaitable<std::string> login_answer(relay& hub, std::shared_ptr<user_link> user,
                                    const http_request& request) {
    const std::string to = query_take(request.query, "to").value_or("");
    if (request.path == LOGIN_PAGE && (request.method == "GET" || request.method == "HEAD")) {
        co_return user->who ? home(hub, *user, request) : form(hub, 200, to, "");
    }
    if (request.method != "POST") {
        co_return http_reply(405, "text/plain", "Use POST.\n", "Allow: POST\r\n");
    }
    if (request.path == LOGOUT) {
        co_return log_out(hub, *user, request);
    }
    if (request.chunked || request.length > FORM_MAX) {
        co_return http_text_reply(400, "This is no form.");
    }
    const std::string host(http_header(request.headers, "host"));
    std::string body = co_await body_of(hub, user, request.length);
    co_return co_await log_in(hub, user, host, std::move(body));
}

std::string login_redirect(const relay& hub, const user_link& user, const http_request& request) {
    const std::string host(http_header(request.headers, "host"));
    const std::string origin = user.scheme + "://";
    std::string page, back(request.target);
    if (is_shared(hub, host)) {
        page.append(origin).append(hub.settings.domain).append(port_of(host));
        back.insert(0, origin + host);
    }
    page.append(LOGIN_PAGE).append("?to=").append(percent_encode(back));
    return see(page, "");
}
