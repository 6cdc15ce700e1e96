#include "front_door.h"

#include <algorithm>

#include "page.h"
#include "stream.h"

namespace {

constexpr size_t HEAD_MAX = 64 * 1024;
constexpr size_t DEVICE_URI_MAX = 4095;  // a device looks at no more of a request's URI
constexpr uint16_t PORT_MAX = 65534;
constexpr std::chrono::seconds FAREWELL{2};

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

// The head as the device gets it. Its parameters come first in the query, where neither a long
// query nor the user's own parameters can get in their way. One request a connection: the device
// cannot signal where a response ends, so on a connection that stays open a second request would go
// to whatever service the first one was for.
std::string head_for_device(const http_request& request, std::string_view target) {
    std::string head(request.method);
    head.append(" ").append(target).append(" ").append(request.version).append("\r\n");
    const bool keeps = request.upgrades();
    for (std::string_view rest = request.headers; !rest.empty();) {
        const std::string_view line = http_line_take(rest);
        const std::string name = lower_case(line.substr(0, line.find(':')));
        if (keeps || (name != "connection" && name != "keep-alive")) {
            head.append(line).append("\r\n");
        }
    }
    return head.append(keeps ? "\r\n" : "Connection: close\r\n\r\n");
}

// What the device gets as the request's head goes to `head`; or the result is the user's answer.
std::string route_to_device(const device& owner, uint16_t port, std::string_view rest,
                            const http_request& request, std::string& head) {
    if (request.method != "GET" && request.method != "POST" && request.method != "HEAD") {
        // a device drops the others without a word
        return http_reply(405, "text/plain", "Devices take GET, POST and HEAD.\n",
                          "Allow: GET, POST, HEAD\r\n");
    }
    const bool sayable = std::ranges::all_of(
        owner.id, [](unsigned char c) { return c > ' ' && c != '&' && c != 0x7f; });
    if (!sayable) {  // the device compares undecoded text, up to a blank or an ampersand
        return http_text_reply(502, "This device's id does not fit into a request.");
    }
    std::string query(request.query);
    std::string target =
        std::string(rest) + "?x-qv-devid=" + owner.id + "&x-qv-port=" + std::to_string(port);
    if (const auto priority = query_take(request.query, "gwrelay-pri", &query)) {
        const auto value = number_parse<int32_t>(*priority);
        if (!value) {
            return http_text_reply(400, "gwrelay-pri is a number.");
        }
        target += "&x-qv-pri=" + std::to_string(*value);
    }
    if (target.size() > DEVICE_URI_MAX) {
        return http_text_reply(414, "The device would not see where this is going.");
    }
    head = head_for_device(request, target.append(query.empty() ? "" : "&").append(query));
    return {};
}

// The user's answer; or it is empty, and the request goes to `user.owner` with `head`.
std::string route(relay& hub, user_link& user, const http_request& request, std::string& head) {
    const bool front_page = request.path == "/";
    if (front_page || request.path == "/status.json") {
        if (request.method != "GET" && request.method != "HEAD") {
            return http_reply(405, "text/plain", "Use GET.\n", "Allow: GET, HEAD\r\n");
        }
        return front_page ? http_reply(200, "text/html; charset=utf-8", page_html(hub))
                          : http_reply(200, "application/json", page_json(hub));
    }
    const std::string query = request.query.empty() ? "" : "?" + std::string(request.query);
    const path_parts parts = path_split(request.path);
    const auto found = hub.devices.find(parts.id);
    if (found == hub.devices.end()) {
        const std::string prefix = redirect_by_referer(hub, request);
        return prefix.empty() ? http_text_reply(404, "No such device.")
                              : http_redirect(prefix + std::string(request.path) + query);
    }
    if (parts.second == "report-times" && parts.rest.empty()) {
        return answer_report_times(*found->second, request);
    }
    const auto port = number_parse<uint16_t>(parts.second);
    if (!port || *port == 0 || *port > PORT_MAX) {
        return http_text_reply(404, "After the device id comes a port, 1 to 65534.");
    }
    if (parts.rest.empty()) {  // relative links need the slash
        return http_redirect(std::string(request.path) + "/" + query);
    }
    user.owner = found->second;
    user.port = *port;
    return route_to_device(*user.owner, *port, parts.rest, request, head);
}

awaitable<void> answer(relay& hub, std::shared_ptr<user_link> user, std::string_view bytes,
                       size_t head_length) {
    const auto request = http_request_parse(bytes.substr(0, head_length));
    const bool too_long = head_length == 0 && bytes.size() > HEAD_MAX;
    if (!request) {
        if (!bytes.empty()) {
            log_line(PROBLEM, "%s: not an HTTP request: %s", user->name.c_str(),
                     log_text(bytes.substr(0, bytes.find_first_of("\r\n"))).c_str());
        }
        user->reply(too_long ? http_text_reply(431, "The request head is longer than 64 KiB.")
                             : http_text_reply(400, "This is not an HTTP/1.1 request."));
        co_return;
    }
    user->what = log_text(std::string(request->method) + " " + std::string(request->path));
    if (request->method == "HEAD") {
        user->head_only = true;
        user->response = http_tracker(http_tracker::kind::RESPONSE_TO_HEAD);
    }
    std::string head;
    const std::string reply = route(hub, *user, *request, head);
    if (reply.empty()) {
        co_await stream_open(hub, user, head.append(bytes.substr(head_length)));
    } else {
        user->reply(reply);
    }
}

}  // namespace

awaitable<void> front_door_serve(relay& hub, std::shared_ptr<user_link> user) {
    // Until everything has gone out, an end of the connection, whatever its reason, must not look
    // like the end of a response.
    user->reset_when_closed(true);
    std::string bytes;
    const size_t head_length = co_await connection_http_head(*user, bytes, HEAD_MAX);
    user->deadline = NEVER;
    co_await answer(hub, user, bytes, head_length);
    asio::co_spawn(user->socket.get_executor(), stream_upload(user), asio::detached);
    co_await stream_carry(hub, user);
    co_await connection_flush(*user);
    user->reset_when_closed(false);
    // Closing while the user still sends would reset the connection and could cost him the end of
    // the response. So his side goes on for a moment, into the void.
    asio::error_code ignored;
    user->socket.shutdown(tcp::socket::shutdown_send, ignored);
    const auto until = steady::now() + FAREWELL;
    while (!user->user_ended && !user->closed && steady::now() < until) {
        co_await user->changed.wait();
    }
}
