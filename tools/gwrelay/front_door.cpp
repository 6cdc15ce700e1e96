#include "front_door.h"

#include <algorithm>
#include <charconv>

#include "page.h"
#include "stream.h"

namespace {

constexpr size_t HEAD_MAX = 64 * 1024;
constexpr size_t READ_STEP = 8192;
constexpr size_t DEVICE_URI_MAX = 4095;  // a device looks at no more of a request's URI
constexpr uint16_t PORT_MAX = 65534;
constexpr std::chrono::seconds FAREWELL{2};
constexpr std::string_view HEAD_END = "\r\n\r\n";

// Where a request goes: to the reply, or to a port of a device.
struct destination {
    std::string reply;
    std::shared_ptr<device> owner;
    uint16_t port = 0;
    std::string head;  // as the device gets it
};

destination answered(std::string reply) { return {std::move(reply), nullptr, 0, {}}; }

template <typename T>
std::optional<T> number_parse(std::string_view text) {
    T value{};
    const auto [end, failed] = std::from_chars(text.data(), text.data() + text.size(), value);
    const bool whole = failed == std::errc{} && end == text.data() + text.size();
    return whole ? std::optional<T>(value) : std::nullopt;
}

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

std::string target_of(const http_request& request) {
    return request.query.empty() ? request.path : request.path + "?" + request.query;
}

// A page of the box may link to "/style.css", which names neither device nor port. The page that
// asks does: it is in the Referer.
std::string redirect_by_referer(const relay& hub, const http_request& request) {
    const std::string* referer = request.find("Referer");
    const size_t scheme = referer == nullptr ? std::string::npos : referer->find("://");
    const size_t slash =
        scheme == std::string::npos ? std::string::npos : referer->find('/', scheme + 3);
    if (slash == std::string::npos) {
        return {};
    }
    const path_parts from = path_split(std::string_view(*referer).substr(slash));
    const auto port = number_parse<uint16_t>(from.second);
    if (!port || !hub.devices.contains(from.id)) {
        return {};
    }
    return http_redirect("/" + percent_encode(from.id) + "/" + std::to_string(*port) +
                         target_of(request));
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

// The head as the device gets it. Its two parameters come first in the query, where neither a long
// query nor the user's own parameters can get in their way.
std::string head_for_device(const http_request& request, std::string_view target) {
    std::string head = request.method + " ";
    head.append(target).append(" ").append(request.version).append("\r\n");
    // One request a connection: the device cannot signal where a response ends, so on a connection
    // that stays open a second request would go to whatever service the first one was for.
    const bool keeps = request.upgrades();
    for (const http_header& header : request.headers) {
        const bool dropped = equal_no_case(header.name, "Connection") ||
                             equal_no_case(header.name, "Keep-Alive") ||
                             equal_no_case(header.name, "Proxy-Connection");
        if (keeps || !dropped) {
            head.append(header.line).append("\r\n");
        }
    }
    return head.append(keeps ? "\r\n" : "Connection: close\r\n\r\n");
}

destination route_to_device(std::shared_ptr<device> owner, uint16_t port, std::string_view rest,
                            const http_request& request) {
    const bool relayed =
        request.method == "GET" || request.method == "POST" || request.method == "HEAD";
    if (!relayed) {  // a device drops the others without a word
        return answered(http_reply(405, "text/plain", "Devices take GET, POST and HEAD.\n",
                                   "Allow: GET, POST, HEAD\r\n"));
    }
    const bool sayable = std::all_of(owner->id.begin(), owner->id.end(), [](unsigned char c) {
        return c > ' ' && c != '&' && c != 0x7f;
    });
    if (!sayable) {  // the device compares undecoded text, up to a blank or an ampersand
        return answered(http_text_reply(502, "This device's id does not fit into a request."));
    }
    std::string query = request.query;
    std::string target =
        std::string(rest) + "?x-qv-devid=" + owner->id + "&x-qv-port=" + std::to_string(port);
    if (const auto priority = query_take(request.query, "gwrelay-pri", &query)) {
        const auto value = number_parse<int32_t>(*priority);
        if (!value) {
            return answered(http_text_reply(400, "gwrelay-pri is a number."));
        }
        target += "&x-qv-pri=" + std::to_string(*value);
    }
    if (target.size() > DEVICE_URI_MAX) {
        return answered(http_text_reply(414, "The device would not see where this is going."));
    }
    target.append(query.empty() ? "" : "&").append(query);
    return {{}, std::move(owner), port, head_for_device(request, target)};
}

destination route(relay& hub, const http_request& request) {
    if (request.path == "/") {
        return answered(http_reply(200, "text/html; charset=utf-8", page_html(hub)));
    }
    if (request.path == "/status.json") {
        return answered(http_reply(200, "application/json", page_json(hub)));
    }
    const path_parts parts = path_split(request.path);
    const auto found = hub.devices.find(parts.id);
    if (found == hub.devices.end()) {
        std::string redirect = redirect_by_referer(hub, request);
        return answered(redirect.empty() ? http_text_reply(404, "No such device.") : redirect);
    }
    if (parts.second == "report-times" && parts.rest.empty()) {
        return answered(answer_report_times(*found->second, request));
    }
    const auto port = number_parse<uint16_t>(parts.second);
    if (!port || *port == 0 || *port > PORT_MAX) {
        return answered(http_text_reply(404, "After the device id comes a port, 1 to 65534."));
    }
    if (parts.rest.empty()) {  // relative links need the slash
        const std::string query = request.query.empty() ? "" : "?" + request.query;
        return answered(http_redirect(request.path + "/" + query));
    }
    return route_to_device(found->second, *port, parts.rest, request);
}

// How much of the request's body is still to come. Nothing: the header makes no sense.
std::optional<uint64_t> body_left(const http_request& request, size_t received) {
    if (request.find("Transfer-Encoding") != nullptr) {
        return UINT64_MAX;  // only the user's end would tell
    }
    const std::string* length = request.find("Content-Length");
    const auto size =
        length == nullptr ? std::optional<uint64_t>(0) : number_parse<uint64_t>(*length);
    return size ? std::optional<uint64_t>(*size - std::min<uint64_t>(*size, received)) : size;
}

// Receives until the head is whole. Its length, or 0 when the user has been answered or has left.
awaitable<size_t> read_head(std::shared_ptr<user_link> user, std::string& bytes) {
    for (;;) {
        const size_t filled = bytes.size();
        bytes.resize(filled + READ_STEP);
        const size_t got = co_await connection_receive(*user, std::span(bytes).subspan(filled));
        bytes.resize(filled + got);
        const size_t from = filled < HEAD_END.size() ? 0 : filled - HEAD_END.size();
        const size_t end = bytes.find(HEAD_END, from);
        if (got == 0) {
            if (filled > 0) {
                log_problem("%s: left within a request head", user->name.c_str());
            }
            user->user_ended = true;
            co_return 0;
        }
        if (end != std::string::npos && end + HEAD_END.size() <= HEAD_MAX) {
            co_return end + HEAD_END.size();
        }
        if (bytes.size() > HEAD_MAX) {
            log_problem("%s: request head too long", user->name.c_str());
            user->send(http_text_reply(431, "The request head is longer than 64 KiB."));
            co_return 0;
        }
    }
}

awaitable<void> serve_request(relay& hub, std::shared_ptr<user_link> user) {
    std::string bytes;
    const size_t head_length = co_await read_head(user, bytes);
    if (head_length == 0) {
        co_return;
    }
    user->deadline = steady::time_point::max();
    const auto request = http_request_parse(std::string_view(bytes).substr(0, head_length));
    const auto left = request ? body_left(*request, bytes.size() - head_length) : std::nullopt;
    if (!left) {
        log_problem("%s: not HTTP: %s", user->name.c_str(),
                    log_text(bytes.substr(0, bytes.find('\r'))).c_str());
        user->send(http_text_reply(400, "This is not an HTTP/1.1 request."));
        co_return;
    }
    destination to = route(hub, *request);
    if (to.owner == nullptr) {
        user->send(to.reply);
        co_return;
    }
    user->owner = to.owner;
    user->port = to.port;
    user->request_left = *left;
    if (request->method == "HEAD") {
        user->response.expect_no_body();
    }
    bytes.replace(0, head_length, to.head);
    co_await stream_run(hub, user, std::move(bytes));
}

}  // namespace

awaitable<void> front_door_serve(relay& hub, std::shared_ptr<user_link> user) {
    co_await serve_request(hub, user);
    user->deadline = steady::time_point::max();
    while (!user->idle() && !user->closed && !stream_user_stalls(hub, *user)) {
        co_await user->drained.wait();
    }
    if (!user->idle()) {
        user->refuse("takes nothing");
    }
    if (user->closed) {
        co_return;
    }
    // Closing while the user still sends would reset the connection and could cost him the end of
    // the response. So his side goes on for a moment, into the void.
    asio::error_code ignored;
    user->socket.shutdown(tcp::socket::shutdown_send, ignored);
    const auto until = steady::now() + FAREWELL;
    if (user->port == 0) {  // no stream has been opened, which would receive already
        asio::co_spawn(user->socket.get_executor(), stream_upload(user), asio::detached);
    }
    while (!user->user_ended && !user->closed && steady::now() < until) {
        co_await user->changed.wait();
    }
}

void front_door_ended(relay&, const std::shared_ptr<user_link>& user) {
    stream_close(*user, "failed");
}
