#include "http.h"

#include <algorithm>

#include "text.h"

namespace {

constexpr size_t HEAD_MAX = 65536;
constexpr int SWITCHING_PROTOCOLS = 101, NO_CONTENT = 204, NOT_MODIFIED = 304;
constexpr std::string_view HTTP = "HTTP/1.";
// What is of one of these types and has no length is sent while things happen, however rarely.
constexpr std::string_view OPEN_TYPES[] = {"text/event-stream", "multipart/x-mixed-replace"};

const char* reason_of(int code) {
    switch (code) {
        case 200: return "OK";
        case 307: return "Temporary Redirect";
        case 400: return "Bad Request";
        case 404: return "Not Found";
        case 405: return "Method Not Allowed";
        case 414: return "URI Too Long";
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

std::string_view http_header(std::string_view lines, std::string_view name) {
    while (!lines.empty()) {
        const std::string_view line = http_line_take(lines);
        const size_t colon = std::min(line.find(':'), line.size());
        if (lower_case(line.substr(0, colon)) == name) {
            const size_t from = std::min(line.find_first_not_of(" \t", colon + 1), line.size());
            return line.substr(from, line.find_last_not_of(" \t") + 1 - from);
        }
    }
    return {};
}

bool http_request::upgrades() const {
    return !http_header(headers, "upgrade").empty() &&
           lower_case(http_header(headers, "connection")).find("upgrade") != std::string::npos;
}

std::optional<http_request> http_request_parse(std::string_view head) {
    const std::string_view first = http_line_take(head);
    head = head.substr(0, head.size() - (head.ends_with("\r\n") ? 2 : 1));  // the empty line
    const size_t method_end = first.find(' '), target_end = first.rfind(' ');
    if (method_end == target_end) {  // also when there is no blank at all
        return std::nullopt;
    }
    const std::string_view target = first.substr(method_end + 1, target_end - method_end - 1);
    const size_t mark = std::min(target.find('?'), target.size());
    const http_request request{.method = first.substr(0, method_end),
                               .version = first.substr(target_end + 1),
                               .path = target.substr(0, mark),
                               .query = target.substr(std::min(mark + 1, target.size())),
                               .headers = head};
    const bool target_fits = target.starts_with('/') &&
                             std::all_of(target.begin(), target.end(),
                                         [](unsigned char c) { return c > ' ' && c != 0x7f; });
    const bool version_fits = request.version == "HTTP/1.1" || request.version == "HTTP/1.0";
    return target_fits && version_fits ? std::optional(request) : std::nullopt;
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
    reply.append(std::to_string(body.size())).append("\r\nConnection: close\r\n");
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

void http_tracker::feed(std::string_view bytes) {
    fed = fed || !bytes.empty();
    while (!bytes.empty()) {
        switch (state) {
            case phase::HEAD:
            case phase::CHUNK_SIZE:
            case phase::CHUNK_END:
            case phase::TRAILER: feed_text(bytes); break;
            case phase::BODY:
            case phase::CHUNK: {
                const size_t used = std::min<uint64_t>(left, bytes.size());
                bytes.remove_prefix(used);
                left -= used;
                if (left == 0) {
                    state = state == phase::BODY ? phase::COMPLETE : phase::CHUNK_END;
                }
                break;
            }
            case phase::ENDLESS:
            case phase::STAYS_OPEN:
            case phase::COMPLETE: return;
        }
    }
}

// Moves bytes into `text` up to the end of the head or line that is due, and goes on from there
// when it has come.
void http_tracker::feed_text(std::string_view& bytes) {
    const size_t known = text.size();
    text += bytes;
    const size_t length = state == phase::HEAD ? http_head_length(text, known)
                                               : text.find('\n', known) + 1;  // 0 at npos
    if (foreign() || (length > 0 ? length : text.size()) > HEAD_MAX) {
        state = phase::ENDLESS;
    } else if (length == 0) {
        bytes = {};
        return;
    } else {
        bytes.remove_prefix(length - known);
        text.resize(length);
        state = after_text();
    }
    text.clear();
}

// Whether what has come of the head begins otherwise than a response does.
bool http_tracker::foreign() const {
    return state == phase::HEAD && message_kind != kind::REQUEST &&
           !text.starts_with(HTTP.substr(0, text.size()));
}

http_tracker::phase http_tracker::after_text() {
    if (state == phase::HEAD) {
        return after_head();
    }
    if (state == phase::CHUNK_SIZE) {
        return after_chunk_size();
    }
    const bool empty = text == "\n" || text == "\r\n";
    if (state == phase::CHUNK_END) {
        return empty ? phase::CHUNK_SIZE : phase::ENDLESS;
    }
    return empty ? phase::COMPLETE : phase::TRAILER;
}

http_tracker::phase http_tracker::after_head() {
    const bool request = message_kind == kind::REQUEST;
    if (!request) {
        status = number_parse<int>(std::string_view(text).substr(HTTP.size() + 2, 3)).value_or(0);
        if (status == SWITCHING_PROTOCOLS) {
            return phase::STAYS_OPEN;
        }
        if (status < 100) {
            return phase::ENDLESS;
        }
        if (status < 200) {
            return phase::HEAD;  // an interim answer; the real one follows
        }
        if (message_kind == kind::RESPONSE_TO_HEAD || status == NO_CONTENT ||
            status == NOT_MODIFIED) {
            return phase::COMPLETE;
        }
    }
    if (lower_case(http_header(text, "transfer-encoding")).find("chunked") != std::string::npos) {
        return phase::CHUNK_SIZE;
    }
    const auto length = number_parse<uint64_t>(http_header(text, "content-length"));
    left = length.value_or(0);
    if (length || request) {
        return left > 0 ? phase::BODY : phase::COMPLETE;
    }
    const std::string type = lower_case(http_header(text, "content-type"));
    const bool open = std::ranges::any_of(
        OPEN_TYPES, [&type](std::string_view known) { return type.starts_with(known); });
    return open ? phase::STAYS_OPEN : phase::ENDLESS;
}

http_tracker::phase http_tracker::after_chunk_size() {
    const auto [end, failed] = std::from_chars(text.data(), text.data() + text.size(), left, 16);
    if (failed != std::errc{}) {
        return phase::ENDLESS;
    }
    return left == 0 ? phase::TRAILER : phase::CHUNK;
}
