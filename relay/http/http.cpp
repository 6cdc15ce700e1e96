#include "http/http.h"

#include <algorithm>
#include <array>

#include "base/text.h"

namespace {

constexpr std::string_view HOP_FIELDS[] = {"connection", "keep-alive", "proxy-connection"};

// What a character may be part of.
enum : uint8_t { IN_TOKEN = 1, IN_LINE = 2 };
constexpr auto CHARACTERS = [] {
    std::array<uint8_t, 256> may_be{};
    for (size_t c = 0; c < may_be.size(); ++c) {
        const char text = static_cast<char>(c);
        const bool alphanumeric = (text >= '0' && text <= '9') || (text >= 'A' && text <= 'Z') ||
                                  (text >= 'a' && text <= 'z');
        const bool token =
            alphanumeric ||
            (c < 0x80 && std::string_view("!#$%&'*+-.^_`|~").find(text) != std::string_view::npos);
        const bool control = (c < ' ' && c != '\t') || c == 0x7f;
        may_be[c] = static_cast<uint8_t>((token ? IN_TOKEN : 0) | (control ? 0 : IN_LINE));
    }
    return may_be;
}();

bool all_are(std::string_view text, uint8_t part) {
    return std::ranges::all_of(text,
                               [part](unsigned char c) { return (CHARACTERS[c] & part) != 0; });
}

bool is_token(std::string_view text) { return !text.empty() && all_are(text, IN_TOKEN); }

std::string_view trimmed(std::string_view text) {
    const size_t from = std::min(text.find_first_not_of(" \t"), text.size());
    return text.substr(from, text.find_last_not_of(" \t") + 1 - from);
}

const char* reason_of(int code) {
    switch (code) {
        case 200: return "OK";
        case 303: return "See Other";
        case 307: return "Temporary Redirect";
        case 400: return "Bad Request";
        case 401: return "Unauthorized";
        case 403: return "Forbidden";
        case 404: return "Not Found";
        case 405: return "Method Not Allowed";
        case 414: return "URI Too Long";
        case 421: return "Misdirected Request";
        case 429: return "Too Many Requests";
        case 431: return "Request Header Fields Too Large";
        case 502: return "Bad Gateway";
        case 503: return "Service Unavailable";
        case 504: return "Gateway Timeout";
    }
    return "Error";
}

}  // namespace

size_t http_head_length(std::string_view bytes, size_t known) {
    size_t line_end = bytes.find('\n', known - std::min<size_t>(known, 2));
    for (; line_end != bytes.npos; line_end = bytes.find('\n', line_end + 1)) {
        const size_t next = line_end + (bytes.substr(line_end + 1).starts_with('\r') ? 2 : 1);
        if (bytes.substr(next).starts_with('\n')) {
            return next + 1;
        }
    }
    return 0;
}

std::string_view http_line_take(std::string_view& rest) {
    const size_t end = std::min(rest.find('\n'), rest.size());
    const std::string_view line = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    return line.substr(0, line.size() - (line.ends_with('\r') ? 1 : 0));
}

bool http_has_control(std::string_view line) { return !all_are(line, IN_LINE); }

bool http_field::is(std::string_view lower_name) const { return same_word(name, lower_name); }

bool http_field::valid() const {
    return name.size() < line.size() && is_token(name) && !http_has_control(line);
}

http_field http_field_take(std::string_view& lines) {
    const std::string_view line = http_line_take(lines);
    const size_t colon = std::min(line.find(':'), line.size());
    return {.name = line.substr(0, colon),
            .value = trimmed(line.substr(std::min(colon + 1, line.size()))),
            .line = line};
}

std::string_view http_header(std::string_view lines, std::string_view name) {
    while (!lines.empty()) {
        const http_field field = http_field_take(lines);
        if (field.is(name)) {
            return field.value;
        }
    }
    return {};
}

std::string_view http_word_take(std::string_view& list) {
    const size_t end = std::min(list.find(','), list.size());
    const std::string_view word = list.substr(0, end);
    list.remove_prefix(std::min(end + 1, list.size()));
    return trimmed(word);
}

bool http_has_word(std::string_view list, std::string_view lower_word) {
    while (!list.empty()) {
        if (same_word(http_word_take(list), lower_word)) {
            return true;
        }
    }
    return false;
}

bool http_is_hop(const http_field& field) {
    return std::ranges::any_of(HOP_FIELDS, [&](std::string_view name) { return field.is(name); });
}

namespace {

// Reads the header lines that say where the request ends and what becomes of its connection.
bool request_read_headers(http_request& request) {
    const bool is_1_0 = request.version == "HTTP/1.0";
    bool closes = false, keeps = false, asks_upgrade = false, has_upgrade = false;
    bool has_length = false;
    int hosts = 0;
    for (std::string_view rest = request.headers; !rest.empty();) {
        const http_field field = http_field_take(rest);
        if (!field.valid()) {
            return false;
        }
        if (field.is("content-length")) {
            const auto length = number_parse<uint64_t>(field.value);
            if (!length || has_length) {
                return false;
            }
            has_length = true;
            request.length = *length;
        } else if (field.is("transfer-encoding")) {
            if (request.chunked || is_1_0 || !same_word(field.value, "chunked")) {
                return false;
            }
            request.chunked = true;
        } else if (field.is("host")) {
            ++hosts;
        } else if (field.is("connection")) {
            closes = closes || http_has_word(field.value, "close");
            keeps = keeps || http_has_word(field.value, "keep-alive");
            asks_upgrade = asks_upgrade || http_has_word(field.value, "upgrade");
        } else if (field.is("upgrade")) {
            has_upgrade = true;
        }
    }
    request.persistent = !closes && (keeps || !is_1_0);
    request.upgrades = asks_upgrade && has_upgrade && !is_1_0;
    return hosts <= 1 && !(has_length && request.chunked);
}

}  // namespace

std::optional<http_request> http_request_parse(std::string_view head) {
    const std::string_view first = http_line_take(head);
    head = head.substr(0, head.size() - (head.ends_with("\r\n") ? 2 : 1));  // the empty line
    const size_t method_end = first.find(' '), target_end = first.rfind(' ');
    if (method_end == target_end) {  // also when there is no blank at all
        return std::nullopt;
    }
    const std::string_view target = first.substr(method_end + 1, target_end - method_end - 1);
    const size_t mark = std::min(target.find('?'), target.size());
    http_request request{.method = first.substr(0, method_end),
                         .version = first.substr(target_end + 1),
                         .target = target,
                         .path = target.substr(0, mark),
                         .query = target.substr(std::min(mark + 1, target.size())),
                         .headers = head};
    const bool target_fits = target.starts_with('/') &&
                             std::all_of(target.begin(), target.end(),
                                         [](unsigned char c) { return c > ' ' && c != 0x7f; });
    const bool version_fits = request.version == "HTTP/1.1" || request.version == "HTTP/1.0";
    const bool fits =
        is_token(request.method) && target_fits && version_fits && request_read_headers(request);
    return fits ? std::optional(request) : std::nullopt;
}

std::string_view query_part_take(std::string_view& query) {
    const size_t end = std::min(query.find('&'), query.size());
    const std::string_view part = query.substr(0, end);
    query.remove_prefix(std::min(end + 1, query.size()));
    return part;
}

std::optional<std::string> query_take(std::string_view query, std::string_view name,
                                      std::string* rest) {
    std::optional<std::string> value;
    std::string kept;
    while (!query.empty()) {
        const std::string_view part = query_part_take(query);
        const size_t equals = part.find('=');
        if (equals != part.npos && part.substr(0, equals) == name) {
            value = percent_decode(part.substr(equals + 1));
        } else {
            kept.append(kept.empty() ? "" : "&").append(part);
        }
    }
    if (rest != nullptr && value) {
        *rest = kept;
    }
    return value;
}

std::string http_reply(int code, std::string_view type, std::string_view body,
                       std::string_view extra_headers) {
    std::string reply = "HTTP/1.1 " + std::to_string(code) + " " + reason_of(code) + "\r\n";
    reply.append("Content-Type: ").append(type).append("\r\nContent-Length: ");
    reply.append(std::to_string(body.size())).append("\r\n");
    return reply.append(extra_headers).append("\r\n").append(body);
}

std::string http_text_reply(int code, std::string_view text) {
    return http_reply(code, "text/plain; charset=utf-8", std::string(text) + "\n");
}

std::string http_busy_reply(std::string_view text) {
    return http_reply(503, "text/plain; charset=utf-8", std::string(text) + "\n",
                      "Retry-After: 5\r\n");
}

std::string http_redirect(std::string_view location) {
    return http_reply(307, "text/plain", "", "Location: " + std::string(location) + "\r\n");
}
