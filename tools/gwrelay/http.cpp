#include "http.h"

#include <algorithm>

#include "text.h"

namespace {

constexpr size_t HEAD_MAX = 65536;
constexpr int SWITCHING_PROTOCOLS = 101, NO_CONTENT = 204, NOT_MODIFIED = 304;
constexpr std::string_view LINE_END = "\r\n", HEAD_END = "\r\n\r\n";

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

std::string_view http_line_take(std::string_view& rest) {
    const size_t end = std::min(rest.find(LINE_END), rest.size());
    const std::string_view line = rest.substr(0, end);
    rest.remove_prefix(std::min(end + LINE_END.size(), rest.size()));
    return line;
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
                               .headers = head.substr(0, head.size() - LINE_END.size())};
    const bool target_fits = target.starts_with('/') &&
                             std::all_of(target.begin(), target.end(),
                                         [](unsigned char c) { return c > ' ' && c != 0x7f; });
    const bool version_fits = request.version == "HTTP/1.1" || request.version == "HTTP/1.0";
    return target_fits && version_fits ? std::optional(request) : std::nullopt;
}

std::optional<std::string> query_take(std::string_view query, std::string_view name,
                                      std::string* rest) {
    std::optional<std::string> value;
    std::string kept;
    while (!query.empty()) {
        const size_t end = std::min(query.find('&'), query.size());
        const std::string_view part = query.substr(0, end);
        query.remove_prefix(std::min(end + 1, query.size()));
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

std::string http_redirect(std::string_view location) {
    return http_reply(307, "text/plain", "", "Location: " + std::string(location) + "\r\n");
}

void http_tracker::feed(std::string_view bytes) {
    fed = fed || !bytes.empty();
    while (!bytes.empty()) {
        switch (state) {
            case phase::HEAD:
                if (take_until(bytes, HEAD_END)) {
                    state = after_head();
                    text.clear();
                }
                break;
            case phase::CHUNK_SIZE:
                if (take_until(bytes, LINE_END)) {
                    state = after_chunk_size();
                    text.clear();
                }
                break;
            case phase::TRAILER:
                if (take_until(bytes, LINE_END)) {
                    state = text == LINE_END ? phase::COMPLETE : phase::TRAILER;
                    text.clear();
                }
                break;
            case phase::BODY:
            case phase::CHUNK: {
                const size_t used = std::min<uint64_t>(left, bytes.size());
                bytes.remove_prefix(used);
                left -= used;
                if (left == 0) {
                    state = state == phase::BODY ? phase::COMPLETE : phase::CHUNK_SIZE;
                }
                break;
            }
            case phase::ENDLESS:
            case phase::TUNNEL:
            case phase::COMPLETE: return;
        }
    }
}

// Moves bytes into `text` until it ends with the mark; false while it does not.
bool http_tracker::take_until(std::string_view& bytes, std::string_view mark) {
    do {
        text += bytes.front();
        bytes.remove_prefix(1);
    } while (!bytes.empty() && !text.ends_with(mark));
    if (text.size() > HEAD_MAX) {
        state = phase::ENDLESS;
        text.clear();
    }
    return text.ends_with(mark);
}

http_tracker::phase http_tracker::after_head() {
    const bool request = message_kind == kind::REQUEST;
    if (!request) {
        const bool http = text.starts_with("HTTP/1.");
        status = http ? number_parse<int>(std::string_view(text).substr(9, 3)).value_or(0) : 0;
        if (status < 100 || status == SWITCHING_PROTOCOLS) {  // another protocol, or none at all
            return status == SWITCHING_PROTOCOLS ? phase::TUNNEL : phase::ENDLESS;
        }
        if (status < 200) {
            return phase::HEAD;  // an interim answer; the real one follows
        }
        if (message_kind == kind::RESPONSE_TO_HEAD || status == NO_CONTENT ||
            status == NOT_MODIFIED) {
            return phase::COMPLETE;
        }
    }
    const std::string encoding = lower_case(http_header(text, "transfer-encoding"));
    if (encoding.find("chunked") != std::string::npos) {
        return phase::CHUNK_SIZE;
    }
    const auto length = number_parse<uint64_t>(http_header(text, "content-length"));
    left = length.value_or(0);
    return left > 0 ? phase::BODY : length || request ? phase::COMPLETE : phase::ENDLESS;
}

http_tracker::phase http_tracker::after_chunk_size() {
    const auto [end, failed] = std::from_chars(text.data(), text.data() + text.size(), left, 16);
    if (failed != std::errc{} || left > UINT64_MAX - LINE_END.size()) {
        return phase::ENDLESS;
    }
    const bool last = left == 0;
    left += LINE_END.size();  // the chunk's own line end
    return last ? phase::TRAILER : phase::CHUNK;
}
