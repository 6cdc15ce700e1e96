#include "http/http_message.h"

#include <algorithm>
#include <utility>

#include "base/text.h"
#include "http/http.h"

namespace {

constexpr size_t HEAD_MAX = 65536;  // and of what else is not body
constexpr int CONTINUE = 100, OK = 200, NO_CONTENT = 204, NOT_MODIFIED = 304;
constexpr std::string_view HTTP = "HTTP/1.";
constexpr size_t STATUS_AT = HTTP.size() + 2, STATUS_DIGITS = 3;  // in a first line
// What is of one of these types and has no length is sent while things happen, however rarely.
constexpr std::string_view OPEN_TYPES[] = {"text/event-stream", "multipart/x-mixed-replace"};

// A line that ends here for everybody.
bool is_plain_line(std::string_view line) {
    return line.ends_with("\r\n") && !http_has_control(line.substr(0, line.size() - 2));
}

// A line that begins with a blank belongs to the one before it.
void unfold(std::string& head) {
    for (size_t end = head.find('\n'); end != head.npos; end = head.find('\n', end + 1)) {
        const bool folded =
            end + 1 < head.size() && (head[end + 1] == ' ' || head[end + 1] == '\t');
        if (folded) {
            head[end] = ' ';
            if (end > 0 && head[end - 1] == '\r') {
                head[end - 1] = ' ';
            }
        }
    }
}

}  // namespace

http_body::http_body(uint64_t length)
    : state(length > 0 ? phase::DATA : phase::COMPLETE), left(length) {}

http_body::http_body(kind what) : state(what == kind::OPEN ? phase::OPEN : phase::SIZE_LINE) {}

size_t http_body::take(std::string_view bytes) {
    size_t used = 0;
    while (used < bytes.size()) {
        switch (state) {
            case phase::SIZE_LINE:
            case phase::CHUNK_END:
            case phase::TRAILER: used += take_line(bytes.substr(used)); break;
            case phase::DATA:
            case phase::CHUNK: {
                const size_t more = std::min<uint64_t>(left, bytes.size() - used);
                used += more;
                left -= more;
                if (left == 0) {
                    state = state == phase::DATA ? phase::COMPLETE : phase::CHUNK_END;
                }
                break;
            }
            case phase::OPEN: return bytes.size();
            case phase::COMPLETE:
            case phase::BROKEN: return used;
        }
    }
    return used;
}

size_t http_body::take_line(std::string_view bytes) {
    const size_t end = bytes.find('\n');
    const size_t size = end == bytes.npos ? bytes.size() : end + 1;
    line += bytes.substr(0, size);
    if (line_bytes + line.size() > HEAD_MAX) {
        state = phase::BROKEN;
    } else if (end != bytes.npos) {
        is_sloppy = is_sloppy || !is_plain_line(line);
        state = after_line();
        line.clear();
    }
    return size;
}

http_body::phase http_body::after_line() {
    if (state == phase::SIZE_LINE) {
        return after_size_line();
    }
    const bool empty = line == "\n" || line == "\r\n";
    if (state == phase::CHUNK_END) {
        return empty ? phase::SIZE_LINE : phase::BROKEN;
    }
    line_bytes += line.size();
    return empty ? phase::COMPLETE : phase::TRAILER;
}

http_body::phase http_body::after_size_line() {
    const char* const line_end = line.data() + line.size();
    const auto [end, failed] = std::from_chars(line.data(), line_end, left, 16);
    const std::string_view rest(end, line_end);
    const size_t next = rest.find_first_not_of(" \t");
    if (failed != std::errc{} || std::string_view(";\r\n").find(rest[next]) == rest.npos) {
        return phase::BROKEN;
    }
    return left == 0 ? phase::TRAILER : phase::CHUNK;
}

http_response::taken http_response::take(std::string_view bytes) {
    is_started = true;
    if (is_begun) {
        return {part::BODY, body.take(bytes)};
    }
    const size_t known = text.size();
    text += bytes;
    const size_t size = http_head_length(text, known);
    if (foreign(size) || (size > 0 ? size : text.size()) > HEAD_MAX) {
        is_begun = true;
        body = http_body(http_body::kind::OPEN);
        return {part::FOREIGN, bytes.size()};
    }
    if (size == 0) {
        return {part::NOTHING, bytes.size()};
    }
    text.resize(size);
    after_head();
    text.clear();
    return {is_broken ? part::NOTHING : part::HEAD, size - known};
}

// Whether what has come of the head, or the whole one of that size, begins otherwise than a
// response does.
bool http_response::foreign(size_t size) const {
    if (!text.starts_with(HTTP.substr(0, text.size()))) {
        return true;
    }
    if (size == 0) {
        return false;
    }
    const std::string_view code =
        std::string_view(text).substr(std::min(STATUS_AT, size), STATUS_DIGITS);
    return text[STATUS_AT - 1] != ' ' || number_parse<int>(code).value_or(0) < CONTINUE;
}

void http_response::after_head() {
    unfold(text);
    std::string_view rest = text;
    const std::string_view line = http_line_take(rest);
    status = number_parse<int>(line.substr(STATUS_AT, STATUS_DIGITS)).value_or(0);
    is_1_0 = line[HTTP.size()] == '0';
    const bool odd = http_has_control(line);
    is_sloppy = is_sloppy || odd;
    const size_t shown = odd ? STATUS_AT + STATUS_DIGITS : line.size();
    first_line.assign(HTTP).append("1").append(line.substr(0, shown).substr(HTTP.size() + 1));
    read_fields(rest.substr(0, rest.size() - (rest.ends_with("\r\n") ? 2 : 1)));  // the empty line
    const bool interim = status < OK && status != HTTP_SWITCHING;
    is_broken = is_broken || (status == HTTP_SWITCHING && !may_switch);
    is_begun = !interim && !is_broken;
    body = interim ? http_body() : body_of_head();
}

void http_response::read_fields(std::string_view lines) {
    says_close = says_keep_alive = is_chunked = is_coded = is_open_type = is_websocket = false;
    length.reset();
    waits.reset();
    fields.clear();
    while (!lines.empty()) {
        const http_field field = http_field_take(lines);
        const bool valid = field.valid();
        is_sloppy = is_sloppy || !valid;
        if (valid) {
            read_field(field.name, field.value);
        }
        if (valid && (status == HTTP_SWITCHING || !http_is_hop(field))) {
            fields.append(field.line).append("\r\n");
        }
    }
    if (is_chunked || is_coded) {
        is_sloppy = is_sloppy || length || is_1_0;
        drop_length();  // it does not count
    }
}

void http_response::drop_length() {
    const std::string all = std::exchange(fields, {});
    for (std::string_view rest = all; !rest.empty();) {
        const http_field field = http_field_take(rest);
        if (!field.is("content-length")) {
            fields.append(field.line).append("\r\n");
        }
    }
}

void http_response::read_field(std::string_view name, std::string_view value) {
    if (same_word(name, "content-length")) {
        const auto announced = number_parse<uint64_t>(value);
        is_broken = is_broken || !announced || (length && length != announced);
        is_sloppy = is_sloppy || length;
        length = announced;
    } else if (same_word(name, "transfer-encoding")) {
        while (!value.empty()) {
            const bool last = same_word(http_word_take(value), "chunked");
            is_broken = is_broken || is_chunked;  // nothing may come on top of the chunks
            (last ? is_chunked : is_coded) = true;
        }
    } else if (same_word(name, "connection")) {
        says_close = says_close || http_has_word(value, "close");
        says_keep_alive = says_keep_alive || http_has_word(value, "keep-alive");
    } else if (same_word(name, "keep-alive")) {
        read_keep_alive(value);
    } else if (same_word(name, "upgrade")) {
        is_websocket = same_word(value, "websocket");
    } else if (same_word(name, "content-type")) {
        is_open_type = std::ranges::any_of(OPEN_TYPES, [value](std::string_view known) {
            return same_word(value.substr(0, known.size()), known);
        });
    }
}

void http_response::read_keep_alive(std::string_view value) {
    while (!value.empty()) {
        std::string_view word = http_word_take(value);
        const size_t equals = std::min(word.find('='), word.size());
        const std::string_view name = word.substr(0, equals);
        const uint32_t number =
            number_parse<uint32_t>(word.substr(std::min(equals + 1, word.size()))).value_or(0);
        const bool is_time = same_word(name, "timeout");
        if (is_time || (same_word(name, "max") && number == 0)) {
            waits = std::min(waits.value_or(number), number);
        }
    }
}

std::optional<uint32_t> http_response::waits_s() const {
    return says_close || (is_1_0 && !says_keep_alive) ? 0 : waits;
}

http_body http_response::body_of_head() const {
    if (status == HTTP_SWITCHING) {
        return http_body(http_body::kind::OPEN);
    }
    if (to_head || status == NO_CONTENT || status == NOT_MODIFIED) {
        return http_body();
    }
    if (is_chunked) {
        return http_body(http_body::kind::CHUNKED);
    }
    return length && !is_coded ? http_body(*length) : http_body(http_body::kind::OPEN);
}

std::string http_response::head(std::string_view connection_line) const {
    return (first_line + "\r\n").append(connection_line).append(fields).append("\r\n");
}
