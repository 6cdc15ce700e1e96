#include "users/front_door.h"

#include <algorithm>

#include "page/live.h"
#include "page/metrics.h"
#include "page/page.h"
#include "users/access_log.h"
#include "users/device_request.h"
#include "users/exchange.h"
#include "users/gate.h"
#include "users/login.h"
#include "users/names.h"
#include "users/upload.h"

namespace {

constexpr size_t HEAD_MAX = 64 * 1024;
constexpr uint16_t PORT_MAX = 65534, HTTP_PORT = 80;

constexpr char ELSEWHERE[] = "Devices' ports are at the users' address.";
constexpr char NOT_YOURS[] = "There is nothing here that you may reach.";

// A path in its three parts: "/<device id>/<second>/<rest>".
struct path_parts {
    std::string id;
    std::string_view second;
    std::string_view rest;  // with its slash; empty when the path ends before it
};

path_parts path_split(std::string_view path) {
    path.remove_prefix(1);
    const size_t first = std::min(path.find('/'), path.size());
    path_parts parts{percent_decode(path.substr(0, first)), {}, {}};
    path.remove_prefix(std::min(first + 1, path.size()));
    const size_t second = std::min(path.find('/'), path.size());
    parts.second = path.substr(0, second);
    parts.rest = path.substr(second);
    return parts;
}

// A page of the box may link to "/style.css", which names neither device nor port. The page that
// asks does: it is in the Referer. Empty when that does not help.
std::string redirect_by_referer(const relay& hub, const http_request& request) {
    const std::string_view referer = http_header(request.headers, "referer");
    const size_t host = referer.find("://");
    const size_t slash = host == referer.npos ? host : referer.find('/', host + 3);
    const path_parts from = path_split(slash == referer.npos ? "/" : referer.substr(slash));
    if (!number_parse<uint16_t>(from.second) || !hub.devices.contains(from.id)) {
        return {};
    }
    return "/" + percent_encode(from.id) + "/" + std::string(from.second);
}

std::string answer_report_times(device& owner, const http_request& request) {
    const auto times = report_times_parse(query_take(request.query, "t1").value_or(""),
                                          query_take(request.query, "t2").value_or(""));
    if (request.method != "POST") {
        return http_reply(405, "text/plain", "Use POST.\n", "Allow: POST\r\n");
    }
    if (!times) {
        return http_text_reply(400, "t1 is 2 to 3599 seconds, t2 at least 3600.");
    }
    return device_send_times(owner, *times)
               ? http_text_reply(200, "Sent.")
               : http_text_reply(503, "The device has no control connection.");
}

// What is not about a device, if it is that.
std::string own_answer(relay& hub, user_link& user, const http_request& request) {
    if (request.path == "/healthz") {
        return http_text_reply(hub.draining ? 503 : 200, hub.draining ? "Ending." : "Fine.");
    }
    const bool admin = gate_is_admin(hub, user);
    if (request.path == "/" && user.who && (!admin || user.came_by == door::USERS)) {
        return http_redirect(LOGIN_PAGE);
    }
    if (user.came_by == door::USERS || !admin) {
        return {};
    }
    if (request.path == "/metrics") {
        return http_reply(200, "text/plain; version=0.0.4", metrics_text(hub));
    }
    return page_answer(hub, user, request);
}

// The request goes to that port of the device, to `path` there. What the device gets for it is in
// `heads`; or the result is the user's answer.
std::string forward(const relay& hub, user_link& user, const http_request& request,
                    std::string_view path, device_heads& heads) {
    const std::string& service = hub.settings.service_host;
    const std::string_view host = http_header(request.headers, "host");
    const std::string port = user.port == HTTP_PORT ? "" : ":" + std::to_string(user.port);
    user.view = {.address = user.name.substr(0, user.name.rfind(':')),
                 .scheme = user.scheme,
                 .user_host = std::string(host),
                 .service_host = service.empty() ? std::string(host) : service + port,
                 .prefix = std::string(request.path.substr(0, request.path.size() - path.size())),
                 .port = user.port,
                 .parameters = {}};
    if (!hub.entry.rules.accounts) {
        return device_request_heads(user, path, request, heads);
    }
    const std::string fields = gate_fields(hub, user, request.headers);
    http_request passed = request;
    passed.headers = fields;
    return device_request_heads(user, path, passed, heads);
}

// Under a path, what a box shows would have the origin of the relay's own page, and could do there
// what the user can whose session his browser tells by itself.
std::string redirect_to_name(const relay& hub, const user_link& user, const http_request& request,
                             const device& owner, uint16_t port, const std::string& rest) {
    const std::string_view host = http_header(request.headers, "host");
    const size_t colon = host.find(':', host_name(host).size());
    return http_redirect(user.scheme + "://" + label_with_port(owner.label, port) + "." +
                         hub.settings.domain +
                         std::string(host.substr(std::min(colon, host.size()))) + rest);
}

std::string route_named(const relay& hub, user_link& user, const http_request& request,
                        const named& name, device_heads& heads) {
    if (user.came_by == door::ADMIN) {
        return http_text_reply(404, ELSEWHERE);
    }
    if (!gate_is_admin(hub, user) &&
        (name.owner == nullptr || !gate_may_reach(hub, user, *name.owner, name.port))) {
        return http_text_reply(403, NOT_YOURS);
    }
    if (name.owner == nullptr) {
        return http_text_reply(404, "No device has this name.");
    }
    if (name.port == 0) {
        return http_text_reply(
            404, "This device has announced no web page. With a port its name is " +
                     label_with_port(name.owner->label, HTTP_PORT) + "." + hub.settings.domain +
                     ".");
    }
    user.owner = name.owner;
    user.port = name.port;
    return forward(hub, user, request, request.path, heads);
}

// The user's answer; or it is empty, and the request goes to `user.owner` with `heads`.
std::string route(relay& hub, user_link& user, const http_request& request, device_heads& heads) {
    const auto name = names_find(hub, http_header(request.headers, "host"));
    if (std::string own = name ? "" : own_answer(hub, user, request); !own.empty()) {
        return own;
    }
    if (hub.draining) {
        return http_busy_reply(DRAINING);
    }
    if (name) {
        return route_named(hub, user, request, *name, heads);
    }
    const std::string query = request.query.empty() ? "" : "?" + std::string(request.query);
    const path_parts parts = path_split(request.path);
    const auto found = hub.devices.find(parts.id);
    const bool admin = gate_is_admin(hub, user);
    const auto port = number_parse<uint16_t>(parts.second);
    if (!admin && (found == hub.devices.end() || !port ||
                   !gate_may_reach(hub, user, *found->second, *port))) {
        return http_text_reply(403, NOT_YOURS);
    }
    if (found == hub.devices.end()) {
        const std::string prefix = redirect_by_referer(hub, request);
        return prefix.empty() ? http_text_reply(404, "No such device.")
                              : http_redirect(prefix + std::string(request.path) + query);
    }
    if (user.came_by != door::USERS && admin && parts.second == "report-times" &&
        parts.rest.empty()) {
        return answer_report_times(*found->second, request);
    }
    if (user.came_by == door::ADMIN) {
        return http_text_reply(404, ELSEWHERE);
    }
    if (!port || *port == 0 || *port > PORT_MAX) {
        return http_text_reply(404, "After the device id comes a port, 1 to 65534.");
    }
    if (parts.rest.empty()) {  // relative links need the slash
        return http_redirect(std::string(request.path) + "/" + query);
    }
    if (user.by_session && !found->second->label.empty()) {
        return redirect_to_name(hub, user, request, *found->second, *port,
                                std::string(parts.rest) + query);
    }
    user.owner = found->second;
    user.port = *port;
    return forward(hub, user, request, parts.rest, heads);
}

// Whether bytes of a next request are there. Empty lines in front of it mean nothing.
bool begins(std::string& input) {
    input.erase(0, std::min(input.find_first_not_of("\r\n"), input.size()));
    return !input.empty();
}

// The length of the next request's head, with which `user.input` begins. 0: what is there is none,
// if anything is.
awaitable<size_t> next_head(const relay& hub, user_link& user) {
    auto idle_since = steady::now();
    size_t known = 0;
    while (!user.closed) {
        if (begins(user.input)) {
            const size_t length = http_head_length(user.input, known);
            known = user.input.size();
            if (length > 0 || known > HEAD_MAX || user.user_ended) {
                co_return length <= HEAD_MAX ? length : 0;
            }
            if (user.deadline == NEVER) {
                user.expect_within(hub.settings.login_timeout, "said nothing useful in time");
            }
        } else if (!user.idle()) {  // he still reads
            idle_since = steady::now();
        } else if (user.user_ended || hub.draining ||
                   steady::now() - idle_since >= hub.settings.idle_timeout) {
            break;
        }
        co_await user.changed.wait();
    }
    co_return 0;
}

void refuse(user_link& user, size_t head_length) {
    const bool too_long = head_length == 0 && user.input.size() > HEAD_MAX;
    log_line(PROBLEM, "%s: not an HTTP request: %s", user.name.c_str(),
             log_text(user.input.substr(0, user.input.find_first_of("\r\n"))).c_str());
    user.persistent = user.head_only = false;
    user.reply(too_long ? http_text_reply(431, "The request head is longer than 64 KiB.")
                        : http_text_reply(400, "This is not an HTTP/1.1 request."));
}

// Serves the next request. True: another one may follow.
awaitable<bool> serve_one(relay& hub, std::shared_ptr<user_link> user) {
    const size_t head_length = co_await next_head(hub, *user);
    user->deadline = NEVER;
    if (user->closed || user->input.empty()) {
        co_return false;
    }
    // A copy: more may come while the user is asked for his password.
    const std::string head = user->input.substr(0, head_length);
    const auto request = http_request_parse(head);
    if (!request) {
        refuse(*user, head_length);
        co_return false;
    }
    exchange_begin(hub.settings, *user, *request);
    user->persistent = user->persistent && !hub.draining;
    const access_record record(*user, *request);
    user->input.erase(0, head_length);
    device_heads heads;
    std::string reply = co_await gate_pass(hub, user, *request);
    if (reply.empty()) {
        reply = route(hub, *user, *request, heads);
    }
    if (reply.empty()) {
        co_await exchange_run(hub, user, std::move(heads));
    } else {
        user->reply(reply);
    }
    if (user->watches) {
        co_await page_watch(hub, user);
    }
    while (user->full() && !user->closed) {  // he takes less than he asks for
        co_await user->changed.wait();
    }
    access_log_write(hub, *user, record);
    co_return user->keeps;
}

}  // namespace

awaitable<void> front_door_serve(relay& hub, std::shared_ptr<user_link> user) {
    // Until everything has gone out, an end of the connection, whatever its reason, must not look
    // like the end of a response.
    user->reset_when_closed(true);
    asio::co_spawn(user->socket.get_executor(), upload_serve(user), asio::detached);
    bool more = co_await serve_one(hub, user);
    while (more) {  // g++ 12 destroys a coroutine's variables too early when this would await
        more = co_await serve_one(hub, user);
    }
    user->unheard = true;
    user->input.clear();
    user->changed.notify();
    co_await connection_flush(*user);
    user->reset_when_closed(false);
    // Closing while the user still sends would reset the connection and could cost him the end of
    // the response. So his side goes on for a moment, into the void.
    asio::error_code ignored;
    user->socket.shutdown(tcp::socket::shutdown_send, ignored);
    const auto until = steady::now() + hub.settings.linger_timeout;
    while (!user->user_ended && !user->closed && steady::now() < until) {
        co_await user->changed.wait();
    }
}
