// relay_request - gwrelay's reading of users' and devices' HTTP heads: the request, its fields, its
// query.
#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>

#include "base/json.h"
#include "base/text.h"
#include "http/http.h"
#include "support/process.h"

static void fields(std::string_view lines) {
    http_header(lines, "host");
    while (!lines.empty()) {
        const size_t before = lines.size();
        const http_field field = http_field_take(lines);
        must(lines.size() < before);
        if (field.valid()) {
            must(!field.name.empty() && !http_has_control(field.line));
            http_is_hop(field);
            http_has_word(field.value, "close");
        }
    }
}

static void query(std::string_view text) {
    std::string rest;
    if (query_take(text, "port", &rest)) {
        must(rest.size() < text.size());
    }
    while (!text.empty()) {
        const size_t before = text.size();
        query_part_take(text);
        must(text.size() < before);
    }
}

// The first byte says in what pieces the head comes.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    input_text input(bytes, size);
    const size_t piece = size_t{input.byte()} + 1;
    const exact_bytes all(input.rest);
    const std::string_view text(all.bytes.get(), all.size);
    const size_t length = http_head_length(text);
    size_t known = 0, found = 0;
    while (found == 0 && known < text.size()) {
        const size_t next = std::min(known + piece, text.size());
        found = http_head_length(text.substr(0, next), known);
        known = next;
    }
    must(found == length);  // in whatever pieces
    const exact_bytes head(text.substr(0, length));
    if (const auto request = http_request_parse({head.bytes.get(), head.size})) {
        must(length > 0 && !request->method.empty() && !request->path.empty());
        fields(request->headers);
        query(request->query);
    }
    fields(text);
    query(text);
    const std::string encoded = percent_encode(text);
    must(percent_decode(encoded) == text);
    percent_decode(text);
    html_escape(text);
    json_pairs(text);
    const auto pairs = json_pairs("{\"a\":" + json_line(json_text(text)) + "}");
    must(pairs && pairs->at("a") == json_text(text));
    return 0;
}
