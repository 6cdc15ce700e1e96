// uri - what is read out of requests and texts: the URI, its parameters, quoted values, extensions.
#include <cstring>
#include <string>

#include "runtime/gwa_util_http.h"
#include "support/process.h"

static constexpr char FILL = '#';

// A buffer for a result, in a block of exactly its size.
struct result_buffer {
    exact_bytes block;
    explicit result_buffer(size_t size) : block(std::string(size, FILL)) {}
    char* data() { return block.data(); }
    size_t size() const { return block.size; }
};

static void text_parameter(const char* text, std::string_view name, size_t room) {
    result_buffer value(room);
    size_t size = value.size();
    if (gwa_uri_param_str_get(text, name.data(), name.size(), value.data(), &size) == 0) {
        must(size < value.size() && strlen(value.data()) == size);
    }
    int32_t number = 0;
    gwa_uri_param_int_get(text, name.data(), name.size(), &number);
}

static void quoted_value(const char* text, std::string_view key, size_t room) {
    result_buffer value(room);
    gwa_json_str_get(text, key.data(), key.size(), value.data(), value.size());
}

static void url(std::string_view text, size_t room) {
    const exact_bytes exact(text);
    const char* const bytes = exact.bytes.get();
    must(gwa_url_mime_get(bytes, exact.size) != nullptr);
    result_buffer to(room);
    must(gwa_url_percent_drop(bytes, exact.size, to.data(), to.size()) <= to.size());
}

// The first bytes give the room for results and the length of a name, which stands next.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    process_run([=] {
        input_text input(bytes, size);
        const size_t room = size_t{input.byte()} + size_t{input.byte()} * 256;
        const exact_bytes name(input.take(input.byte() % 16));
        const std::string_view key(name.bytes.get(), name.size);
        const exact_bytes head(input.rest);
        result_buffer uri(room);
        if (gwa_http_uri_get(head.bytes.get(), head.size, uri.data(), uri.size()) == 0) {
            must(strlen(uri.data()) < uri.size() && uri.data()[0] != ' ');
            text_parameter(uri.data(), "x-qv-devid", room % 128);
            text_parameter(uri.data(), key, room % 128);
            url(uri.data(), room);
        }
        exact_bytes text(input.rest, true);
        text_parameter(text.data(), key, room % 128);
        quoted_value(text.data(), key, room % 128);
        url(input.rest, room);
    });
    return 0;
}
