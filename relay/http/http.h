// http.h - as much of HTTP/1.1 as the address manager and the front door need.
//
// A line ends with a line feed, with or without a carriage return: programs behind the web servers
// of small boxes often leave that away.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

struct http_request {  // borrows from the head that was parsed
    std::string_view method, version;
    std::string_view target;       // as sent, not decoded: the path, or it and a query
    std::string_view path, query;  // the query without its question mark
    std::string_view headers;      // lines with their ends, up to the empty line
    uint64_t length = 0;           // of its body
    bool chunked = false;
    bool persistent = false;  // its connection may go on after the response
    bool upgrades = false;    // asks for another protocol on this connection

    bool has_body() const { return chunked || length > 0; }
};

// Parses a head that ends with its empty line. Nothing: it is not HTTP, or a service might find its
// end elsewhere than we do, and so another request in what follows.
std::optional<http_request> http_request_parse(std::string_view head);
// The length of the head at the front of `bytes` with its empty line, or 0 while that has not come.
// The first `known` bytes have been found to hold no whole head.
size_t http_head_length(std::string_view bytes, size_t known = 0);
// Takes the next line off the front of `rest`, without its end.
std::string_view http_line_take(std::string_view& rest);

// Whether a line has what does not belong into one: a return without its feed, for instance, which
// some take for the line's end.
bool http_has_control(std::string_view line);

struct http_field {  // one header line
    std::string_view name, value, line;
    bool is(std::string_view lower_name) const;
    bool valid() const;  // it has a name without blanks and a colon, and no control characters
};
http_field http_field_take(std::string_view& lines);
// The value of the first header line of that name, which is given in lower case; or nothing.
std::string_view http_header(std::string_view lines, std::string_view name);
// Takes the next word off the front of a list with commas, without the blanks around it.
std::string_view http_word_take(std::string_view& list);
bool http_has_word(std::string_view list, std::string_view lower_word);
// Of the header lines, those that are about this connection alone and go no further.
bool http_is_hop(const http_field& field);

// Takes the next parameter off the front of a query, with its value.
std::string_view query_part_take(std::string_view& query);
// The value of a query's parameter, decoded. When `rest` is given, the query goes there without
// the parameter, otherwise untouched.
std::optional<std::string> query_take(std::string_view query, std::string_view name,
                                      std::string* rest = nullptr);

// A whole reply; nothing in it is said of the connection. Extra headers come as whole lines.
std::string http_reply(int code, std::string_view type, std::string_view body,
                       std::string_view extra_headers = {});
std::string http_text_reply(int code, std::string_view text);
std::string http_busy_reply(std::string_view text);  // 503: it may work in a moment
std::string http_redirect(std::string_view location);
