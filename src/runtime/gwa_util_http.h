// gwa_util_http.h - small text parsers: the request line, URI parameters, quoted values that follow
// a key, and MIME types.
//
// Threads: pure functions of their arguments apart from logging; none allocates.
// Results: 0, or -1 on malformed input. Nothing reads past the end of its input.
#pragma once

#include <cstddef>
#include <cstdint>

// Takes the URI, query included and nothing decoded, out of a request head that need not be
// terminated; looks at the first 4096 bytes only. A URI longer than the buffer is cut. 0 or -1.
int gwa_http_uri_get(const char* head, size_t length, char* uri, size_t size);

// An integer parameter of a URI. Only the first occurrence of `name` counts (oddity 9), wherever in
// the text it is, and it must be followed by "=". Values outside 32 bits are clamped. 0 or -1.
int gwa_uri_param_int_get(const char* text, const char* name, size_t name_length, int32_t* out);
// A text parameter, up to a blank, "&" or the end; cut to the buffer and always terminated. `size`
// gives the buffer's size and takes the value's length. 0 or -1.
int gwa_uri_param_str_get(const char* text, const char* name, size_t name_length, char* out,
                          size_t* size);

// The text between the next two double quotes after `key` and one byte more: a plain scan, not a
// JSON parser. `out` is not terminated: the caller clears it. 0 only if a quote ended the value.
int gwa_json_str_get(const char* text, const char* key, size_t key_length, char* out, size_t size);

// The MIME type of a URL's extension; "application/octet-stream" when it has none that is known.
const char* gwa_url_mime_get(const char* url, size_t length);

// Copies `from`, dropping each "%" and keeping the character behind it. Returns the bytes written.
size_t gwa_url_percent_drop(const char* from, size_t length, char* to, size_t size);
