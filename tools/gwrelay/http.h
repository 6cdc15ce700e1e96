// http.h - as much of HTTP/1.1 as the address manager and the front door need.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct http_header {
    std::string name, value;
    std::string line;  // as the user sent it, without the line's end
};

struct http_request {
    std::string method, version;
    std::string path, query;  // as sent, not decoded; the query without its question mark
    std::vector<http_header> headers;

    const std::string* find(std::string_view name) const;
    bool upgrades() const;  // asks for another protocol on this connection
};

// Parses a head that ends with its empty line. Nothing: it is not HTTP.
std::optional<http_request> http_request_parse(std::string_view head);

// The value of a query's parameter, decoded. When `rest` is given, the query goes there without
// the parameter, otherwise untouched.
std::optional<std::string> query_take(std::string_view query, std::string_view name,
                                      std::string* rest = nullptr);

// A whole reply that ends the connection. Extra headers come as whole lines.
std::string http_reply(int code, std::string_view type, std::string_view body,
                       std::string_view extra_headers = {});
std::string http_text_reply(int code, std::string_view text);
std::string http_redirect(std::string_view location);

// Follows a response that passes by, to learn where it ends: the device cannot say so, because
// nothing in the protocol carries the end of a stream from a device to the relay.
class response_tracker {
   public:
    void expect_no_body() { bodiless = true; }  // the answer to a HEAD
    void feed(std::string_view bytes);
    bool started() const { return fed; }
    bool complete() const { return state == phase::COMPLETE; }
    // Complete, or a chunked body whose last bytes look like the last chunk: too weak a sign to end
    // a stream by itself, good enough once its user has closed or nothing more comes.
    bool looks_complete() const;

   private:
    enum class phase { HEAD, LENGTH, CHUNKED, UNTIL_CLOSE, COMPLETE };
    void head_parse();

    phase state = phase::HEAD;
    bool fed = false;
    bool bodiless = false;
    uint64_t left = 0;
    std::string text;  // the head so far, then the last bytes of a chunked body
};
