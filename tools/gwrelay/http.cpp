#include "http.h"

#include <algorithm>
#include <charconv>

#include "text.h"

namespace {

constexpr size_t RESPONSE_HEAD_MAX = 65536;
constexpr std::string_view LAST_CHUNK = "\r\n0\r\n\r\n";

const char* reason_of(int code) {
    switch (code) {
        case 200: return "OK";
        case 307: return "Temporary Redirect";
        case 400: return "Bad Request";
        case 404: return "Not Found";
        case 405: return "Method Not Allowed";
        case 408: return "Request Timeout";
        case 414: return "URI Too Long";
        case 431: return "Request Header Fields Too Large";
        case 502: return "Bad Gateway";
        case 503: return "Service Unavailable";
        case 504: return "Gateway Timeout";
    }
    return "Error";
}

std::string_view trimmed(std::string_view text) {
    const size_t first = text.find_first_not_of(" \t");
    if (first == text.npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// Takes the next line off the front of `rest`, without its end.
std::string_view line_take(std::string_view& rest) {
    const size_t end = std::min(rest.find("\r\n"), rest.size());
    const std::string_view line = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 2, rest.size()));
    return line;
}

bool is_token(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) {
        return c > ' ' && c < 0x7f &&
               std::string_view("\"(),/:;<=>?@[\\]{}").find(static_cast<char>(c)) ==
                   std::string_view::npos;
    });
}

bool has_controls(std::string_view text) {
    return std::any_of(text.begin(), text.end(),
                       [](unsigned char c) { return (c < ' ' && c != '\t') || c == 0x7f; });
}

bool target_parse(std::string_view target, http_request& to) {
    if (const size_t scheme = target.find("://"); scheme != target.npos && target[0] != '/') {
        const size_t slash = target.find('/', scheme + 3);
        target = slash == target.npos ? "/" : target.substr(slash);
    }
    if (target.empty() || target[0] != '/' || has_controls(target)) {
        return false;
    }
    const size_t mark = std::min(target.find('?'), target.size());
    to.path = target.substr(0, mark);
    to.query = target.substr(std::min(mark + 1, target.size()));
    return true;
}

// The value of a header among the lines of a response's head.
std::string_view response_header(std::string_view head, std::string_view name) {
    line_take(head);
    while (!head.empty()) {
        const std::string_view line = line_take(head);
        const size_t colon = line.find(':');
        if (colon != line.npos && equal_no_case(line.substr(0, colon), name)) {
            return trimmed(line.substr(colon + 1));
        }
    }
    return {};
}

bool contains_no_case(std::string_view text, std::string_view word) {
    for (size_t at = 0; at + word.size() <= text.size(); ++at) {
        if (equal_no_case(text.substr(at, word.size()), word)) {
            return true;
        }
    }
    return false;
}

}  // namespace

const std::string* http_request::find(std::string_view name) const {
    for (const http_header& header : headers) {
        if (equal_no_case(header.name, name)) {
            return &header.value;
        }
    }
    return nullptr;
}

bool http_request::upgrades() const {
    const std::string* connection = find("Connection");
    return find("Upgrade") != nullptr && connection != nullptr &&
           contains_no_case(*connection, "upgrade");
}

std::optional<http_request> http_request_parse(std::string_view head) {
    http_request request;
    const std::string_view first = line_take(head);
    const size_t method_end = first.find(' ');
    const size_t target_end = first.rfind(' ');
    if (method_end == first.npos || target_end <= method_end) {
        return std::nullopt;
    }
    const std::string_view target = first.substr(method_end + 1, target_end - method_end - 1);
    request.method = first.substr(0, method_end);
    request.version = first.substr(target_end + 1);
    const bool known = request.version == "HTTP/1.1" || request.version == "HTTP/1.0";
    const bool one_word = target.find(' ') == target.npos;
    if (!known || !one_word || !is_token(request.method) || !target_parse(target, request)) {
        return std::nullopt;
    }
    while (!head.empty()) {
        const std::string_view line = line_take(head);
        if (line.empty()) {
            break;
        }
        const size_t colon = line.find(':');
        if (colon == line.npos || !is_token(line.substr(0, colon)) || has_controls(line)) {
            return std::nullopt;
        }
        request.headers.push_back({std::string(line.substr(0, colon)),
                                   std::string(trimmed(line.substr(colon + 1))),
                                   std::string(line)});
    }
    return request;
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

void response_tracker::feed(std::string_view bytes) {
    fed = true;
    while (state == phase::HEAD && !bytes.empty()) {
        const size_t before = text.size();
        text.append(bytes);
        const size_t end = text.find("\r\n\r\n", before < 3 ? 0 : before - 3);
        if (end == text.npos) {
            state = text.size() > RESPONSE_HEAD_MAX ? phase::UNTIL_CLOSE : phase::HEAD;
            return;
        }
        bytes.remove_prefix(end + 4 - before);
        text.resize(end + 4);
        head_parse();
    }
    if (state == phase::LENGTH) {
        left -= std::min<uint64_t>(left, bytes.size());
        state = left == 0 ? phase::COMPLETE : phase::LENGTH;
    } else if (state == phase::CHUNKED) {
        text.append(bytes.substr(bytes.size() - std::min(bytes.size(), LAST_CHUNK.size())));
        text.erase(0, text.size() - std::min(text.size(), LAST_CHUNK.size()));
    }
}

void response_tracker::head_parse() {
    const std::string_view head = text;
    int code = 0;
    if (head.starts_with("HTTP/1.") && head.size() > 12) {
        std::from_chars(head.data() + 9, head.data() + 12, code);
    }
    const std::string_view length = response_header(head, "Content-Length");
    const auto [end, failed] = std::from_chars(length.data(), length.data() + length.size(), left);
    const bool sized = !length.empty() && failed == std::errc{} && end == length.end();
    constexpr int SWITCHING_PROTOCOLS = 101;
    if (code >= 100 && code < 200 && code != SWITCHING_PROTOCOLS) {
        state = phase::HEAD;  // an interim answer; the real one follows
    } else if (code < 200) {
        state = phase::UNTIL_CLOSE;  // another protocol from here on, or no HTTP at all
    } else if (bodiless || code == 204 || code == 304) {
        state = phase::COMPLETE;
    } else if (contains_no_case(response_header(head, "Transfer-Encoding"), "chunked")) {
        state = phase::CHUNKED;
    } else if (sized) {
        state = left == 0 ? phase::COMPLETE : phase::LENGTH;
    } else {
        state = phase::UNTIL_CLOSE;
    }
    if (state == phase::CHUNKED) {
        text.erase(0, text.size() - 2);  // an empty body's last chunk leans on the head's end
    } else {
        text.clear();
    }
}

bool response_tracker::looks_complete() const {
    return complete() || (state == phase::CHUNKED && text == LAST_CHUNK);
}
