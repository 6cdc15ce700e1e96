// relay_rewriting - what gwrelay changes in heads on their way between users and services, and the
// names that it makes of devices' ids: one head stays one head, and no two ids have one name.
#include <algorithm>
#include <string>

#include "base/label.h"
#include "http/http_message.h"
#include "http/rewrite.h"
#include "support/process.h"

namespace {

size_t lines_of(std::string_view head) {
    return static_cast<size_t>(std::ranges::count(head, '\n'));
}

void names(std::string_view id, std::string_view other) {
    const std::string label = label_of(id);
    must(label.size() <= 56 && !label.ends_with('-') && !label.starts_with("xn-"));
    must(std::ranges::all_of(label, [](unsigned char c) {
        return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-';
    }));
    must(label.empty() || id == other || label != label_of(other));
    const label_parts alone = label_split(label);
    must(alone.label == label && !alone.port);
    const std::string with_port = label_with_port(label, 65534);
    const label_parts both = label_split(with_port);
    must(both.label == label && both.port == 65534);
}

// A user's lines, which have been found to be good ones, for the service.
void request(const http_view& view, std::string_view text) {
    const std::string head(text.substr(0, http_head_length(text)));
    if (const auto parsed = http_request_parse(head)) {
        for (std::string_view rest = parsed->headers; !rest.empty();) {
            const http_field field = http_field_take(rest);
            const std::string changed = rewrite_field(view, field);
            std::string_view line = changed;
            must(changed.empty() || (lines_of(changed) == 1 && changed.ends_with("\r\n")));
            must(changed.empty() || http_field_take(line).valid());
        }
    }
}

void response(const http_view& view, std::string_view text) {
    http_response parser(false, false);
    while (!text.empty() && !parser.over()) {
        const http_response::taken taken = parser.take(text);
        if (taken.what == http_response::part::HEAD) {
            const std::string before = parser.head("Connection: close\r\n");
            const std::string after = rewrite_response(view, before);
            must(http_head_length(after) == after.size() && lines_of(after) == lines_of(before));
        }
        text.remove_prefix(taken.size);
    }
}

std::string good_text(std::string_view text) {
    return http_has_control(text) ? "" : std::string(text);
}

}  // namespace

// The first byte says how the user comes; his Host and the service's stand behind their lengths.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    input_text input(bytes, size);
    const uint8_t mode = input.byte();
    const std::string_view one = input.take(input.byte()), other = input.take(input.byte());
    names(one.substr(0, 47), other.substr(0, 47));
    http_view view{.address = "192.0.2.1",
                   .scheme = mode % 2 == 1 ? "https" : "http",
                   .user_host = good_text(one),
                   .service_host = good_text(other),
                   .prefix = mode / 2 % 2 == 1 ? "/box/80" : "",
                   .port = static_cast<uint16_t>(mode / 4 % 2 == 1 ? 80 : 8080),
                   .parameters = "x-qv-devid=box&x-qv-port=80"};
    const exact_bytes rest(input.rest);
    must(lines_of(rewrite_forwarded(view)) <= 3);
    request(view, {rest.bytes.get(), rest.size});
    response(view, {rest.bytes.get(), rest.size});
    return 0;
}
