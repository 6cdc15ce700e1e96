#include "users/device_request.h"

#include <algorithm>
#include <span>

namespace {

constexpr size_t DEVICE_LOOKS_AT = 4096;  // the bytes of a request in which a device finds its URI
constexpr int32_t DEFAULT_PRIORITY = 4;
constexpr char LAST_PRIORITY[] = "2147483647";
constexpr size_t PADDING_MIN = 10;

struct {
    std::string_view name, encoded;
} constexpr NAMES[] = {{"x-qv-", "%78-qv-"}, {"loglv", "%6Coglv"}, {"timeout", "%74imeout"}};
constexpr size_t NAMES_OF_ALL_PORTS = 1;  // a device looks for the others at its own port alone
// What a user may tell the device itself.
constexpr std::string_view OPERATION_NAMES[] = {"x-qv-gwad-opt=", "loglv=", "timeout="};

std::string without_names(std::string_view text, uint16_t port) {
    std::string safe(text);
    const size_t count = port == MAINTENANCE_PORT ? std::size(NAMES) : NAMES_OF_ALL_PORTS;
    for (const auto& [name, encoded] : std::span(NAMES, count)) {
        for (size_t at = safe.find(name); at != safe.npos; at = safe.find(name, at)) {
            safe.replace(at, name.size(), encoded);
        }
    }
    return safe;
}

std::string query_without_names(std::string_view query, uint16_t port) {
    if (port != MAINTENANCE_PORT) {
        return without_names(query, port);
    }
    std::string safe;
    while (!query.empty()) {
        const std::string_view part = query_part_take(query);
        const auto operation = std::ranges::find_if(
            OPERATION_NAMES, [part](std::string_view name) { return part.starts_with(name); });
        const size_t kept = operation == std::end(OPERATION_NAMES) ? 0 : operation->size();
        safe.append(safe.empty() ? "" : "&").append(part.substr(0, kept));
        safe += without_names(part.substr(kept), port);
    }
    return safe;
}

std::string parameters(const device& owner, uint16_t port) {
    return "x-qv-devid=" + owner.wire_id + "&x-qv-port=" + std::to_string(port);
}

// What the service is told of its connection, which is another one than the user's.
std::string_view connection_line_to_service(const user_link& user) {
    if (!user.shareable) {
        return "Connection: close\r\n";
    }
    return user.is_1_0 ? "Connection: keep-alive\r\n" : "";
}

// The service's own connection lines are of no use to others, and an upgrade is between the two.
std::string fields_for_service(const user_link& user, const http_request& request) {
    std::string fields;
    for (std::string_view rest = request.headers; !rest.empty();) {
        const http_field field = http_field_take(rest);
        if (request.upgrades || !http_is_hop(field)) {
            fields += user.port == MAINTENANCE_PORT ? std::string(field.line) + "\r\n"
                                                    : rewrite_field(user.view, field);
        }
    }
    if (user.port != MAINTENANCE_PORT) {  // which is no service
        fields += rewrite_forwarded(user.view);
    }
    return fields.append(request.upgrades ? "" : connection_line_to_service(user)).append("\r\n");
}

std::string request_line(std::string_view method, std::string_view target,
                         std::string_view version) {
    return std::string(method).append(" ").append(target).append(" ").append(version) + "\r\n";
}

// Whether a device takes a parameter from what comes first on a stream.
bool device_takes(std::string_view method) {
    return method == "GET" || method == "POST" || method == "HEAD";
}

// The device compares undecoded text, up to a blank or an ampersand.
bool sayable(const device& owner) {
    return std::ranges::all_of(owner.wire_id,
                               [](unsigned char c) { return c > ' ' && c != '&' && c != 0x7f; }) &&
           owner.wire_id.find(NAMES[0].name) == owner.id.npos;
}

// The relay's own request: it changes nothing, and a service answers it without a body.
std::string ask_head(const user_link& user, std::string_view version) {
    http_view view = user.view;
    std::string host = "Host: " + (view.service_host.empty() ? "localhost" : view.service_host);
    return request_line("HEAD", "/?" + view.parameters, version) + host + "\r\n" +
           rewrite_forwarded(view) + (user.is_1_0 ? "Connection: keep-alive\r\n\r\n" : "\r\n");
}

}  // namespace

std::string device_request_heads(user_link& user, std::string_view path,
                                 const http_request& request, device_heads& heads) {
    const device& owner = *user.owner;
    const uint16_t port = user.port;
    const bool by_path = !user.view.prefix.empty();
    if (!sayable(owner)) {
        return http_text_reply(502, "This device's id does not fit into a request.");
    }
    user.priority = DEFAULT_PRIORITY;
    std::string query(request.query);
    std::string& parameters_now = user.view.parameters = parameters(owner, port);
    const auto priority = by_path ? query_take(request.query, "gwrelay-pri", &query) : std::nullopt;
    if (priority) {
        const auto value = number_parse<int32_t>(*priority);
        if (!value || *value < 0) {
            return http_text_reply(400, "gwrelay-pri is a number from 0 to 2147483647.");
        }
        parameters_now += "&x-qv-pri=" + std::to_string(*value);
        user.priority = *value;
    }
    user.shareable = user.shareable && port != MAINTENANCE_PORT;  // which has no streams
    user.repeatable = user.repeatable && user.shareable;
    const std::string fields = fields_for_service(user, request);
    // The parameters come first in the query, where a long one cannot push them out of sight.
    std::string target = without_names(path, port) + "?" + parameters_now;
    const size_t own_size = target.size();
    target.append(query.empty() ? "" : "&").append(query_without_names(query, port));
    const size_t needed = port == MAINTENANCE_PORT ? target.size() : own_size;
    if (!device_takes(request.method)) {
        heads.refusal = http_reply(
            405, "text/plain",
            "This service does not keep its connection open, so it gets GET, POST and HEAD.\n",
            "Allow: GET, POST, HEAD\r\n");
    } else if (request.method.size() + 1 + needed > DEVICE_LOOKS_AT) {
        heads.refusal = http_text_reply(414, "The device would not see where this is going.");
    } else {
        heads.opening = request_line(request.method, target, request.version) + fields;
    }
    if (port != MAINTENANCE_PORT) {
        heads.ask = ask_head(user, request.version);
    }
    const std::string target_of_path =
        query.empty() ? std::string(path) : std::string(path) + "?" + query;
    heads.own =
        request_line(request.method, by_path ? target_of_path : request.target, request.version) +
        fields;
    return {};
}

std::string device_echo_request(const device& owner, size_t size) {
    const std::string head = "GET /?" + parameters(owner, MAINTENANCE_PORT) +
                             "&x-qv-gwad-opt=echo&x-qv-pri=" + LAST_PRIORITY + " HTTP/1.1\r\n";
    return head + device_padding(size - std::min(size, head.size() + 2)) + "\r\n";
}

std::string device_padding(size_t size) {
    return "X-Pad: " + std::string(std::max(size, PADDING_MIN) - (PADDING_MIN - 1), '0') + "\r\n";
}
