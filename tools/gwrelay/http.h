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
    std::string_view path, query;  // as sent, not decoded; the query without its question mark
    std::string_view headers;      // lines with their ends, up to the empty line

    bool upgrades() const;  // asks for another protocol on this connection
};

// Parses a head that ends with its empty line. Nothing: it is not HTTP.
std::optional<http_request> http_request_parse(std::string_view head);
// The length of the head at the front of `bytes` with its empty line, or 0 while that has not come.
// The first `known` bytes have been found to hold no whole head.
size_t http_head_length(std::string_view bytes, size_t known = 0);
// Takes the next line off the front of `rest`, without its end.
std::string_view http_line_take(std::string_view& rest);
// The value of the first header line of that name, which is given in lower case; or nothing.
std::string_view http_header(std::string_view lines, std::string_view name);

// Takes the next parameter off the front of a query, with its value.
std::string_view query_part_take(std::string_view& query);
// The value of a query's parameter, decoded. When `rest` is given, the query goes there without
// the parameter, otherwise untouched.
std::optional<std::string> query_take(std::string_view query, std::string_view name,
                                      std::string* rest = nullptr);

// A whole reply that ends the connection. Extra headers come as whole lines.
std::string http_reply(int code, std::string_view type, std::string_view body,
                       std::string_view extra_headers = {});
std::string http_text_reply(int code, std::string_view text);
std::string http_busy_reply(std::string_view text);  // 503: it may work in a moment
std::string http_redirect(std::string_view location);

// Follows a message that passes by, to learn where it ends: a device cannot say so, because nothing
// in the protocol carries the end of a stream from a device to the relay.
class http_tracker {
   public:
    enum class kind { REQUEST, RESPONSE, RESPONSE_TO_HEAD };

    explicit http_tracker(kind message) : message_kind(message) {}
    void feed(std::string_view bytes);
    bool started() const { return fed; }
    bool complete() const { return state == phase::COMPLETE; }
    // Only its sender's silence tells the end: a short one, or a long one when it is made to stay
    // open (another protocol, or a response of a type that is sent while things happen).
    bool endless() const { return state == phase::ENDLESS || stays_open(); }
    bool stays_open() const { return state == phase::STAYS_OPEN; }
    int code() const { return status; }  // of a response; 0 as yet

   private:
    enum class phase {
        HEAD,
        BODY,
        CHUNK_SIZE,
        CHUNK,
        CHUNK_END,
        TRAILER,
        ENDLESS,
        STAYS_OPEN,
        COMPLETE
    };
    void feed_text(std::string_view& bytes);
    bool foreign() const;
    phase after_text();
    phase after_head();
    phase after_chunk_size();

    kind message_kind;
    phase state = phase::HEAD;
    bool fed = false;
    int status = 0;
    uint64_t left = 0;  // of the body or the chunk
    std::string text;   // the head or line so far
};
