// http_message.h - follows messages that pass by, to learn where they end: a device cannot say so,
// because nothing in the protocol carries the end of a stream from a device to the relay.
//
// It also tells whether what comes behind a message may be taken for the next one. What is sloppy
// (line feeds alone in chunks, two kinds of length) has an end that somebody else may see
// elsewhere: such a message is passed on, but nothing follows it. What is broken has no end at all.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

constexpr int HTTP_SWITCHING = 101;

// What comes behind a head.
class http_body {
   public:
    enum class kind { CHUNKED, OPEN };  // open: it has no end of its own

    explicit http_body(uint64_t length = 0);
    explicit http_body(kind what);
    // How many of the bytes belong to it: all, or those up to its end.
    size_t take(std::string_view bytes);
    bool complete() const { return state == phase::COMPLETE; }
    bool open() const { return state == phase::OPEN; }
    bool broken() const { return state == phase::BROKEN; }
    bool sloppy() const { return is_sloppy; }

   private:
    enum class phase { DATA, SIZE_LINE, CHUNK, CHUNK_END, TRAILER, OPEN, COMPLETE, BROKEN };
    size_t take_line(std::string_view bytes);
    phase after_line();
    phase after_size_line();

    phase state;
    bool is_sloppy = false;
    uint64_t left = 0;      // of the data or the chunk
    size_t line_bytes = 0;  // of the trailer so far
    std::string line;       // so far
};

// A service's answer with the interim ones in front of it.
class http_response {
   public:
    // What has been taken.
    enum class part {
        NOTHING,  // it waits for the rest of a head
        HEAD,     // head() is to be passed on
        BODY,     // the bytes are to be passed on as they are
        FOREIGN,  // raw() is to be passed on; this is no HTTP
    };
    struct taken {
        part what;
        size_t size;
    };

    http_response() = default;
    http_response(bool is_to_head, bool may_switch_protocol)
        : to_head(is_to_head), may_switch(may_switch_protocol) {}
    // Takes what comes next off the front of the bytes, which are not empty. Not when it is over.
    taken take(std::string_view bytes);
    // The head that has just come, as a user gets it, with this line behind its first one. What the
    // service says of its own connection is not in it.
    std::string head(std::string_view connection_line) const;
    const std::string& raw() const { return text; }

    bool started() const { return is_started; }  // a byte has come
    bool begun() const { return is_begun; }      // the last head has come, or what is no head
    bool complete() const { return is_begun && body.complete(); }
    bool broken() const { return is_broken || body.broken(); }
    bool over() const { return complete() || broken(); }
    bool sloppy() const { return is_sloppy || body.sloppy(); }
    // Only its sender's silence tells the end: a short one, or a long one when it is made to stay
    // open (another protocol, or a response of a type that is sent while things happen).
    bool endless() const { return is_begun && body.open(); }
    bool stays_open() const { return endless() && (is_open_type || switched()); }
    bool switched() const { return is_begun && status == HTTP_SWITCHING; }  // to another protocol
    bool upgrades_to_websocket() const { return switched() && is_websocket; }
    bool chunked() const { return is_chunked; }
    int code() const { return status; }  // 0 as yet
    // How long the service promises to wait on its connection for the next request. Nothing: it
    // does not say. Zero seconds: it closes.
    std::optional<uint32_t> waits_s() const;

   private:
    bool foreign(size_t size) const;
    void after_head();
    void read_fields(std::string_view lines);
    void drop_length();
    void read_field(std::string_view name, std::string_view value);
    void read_keep_alive(std::string_view value);
    http_body body_of_head() const;

    bool to_head = false, may_switch = false;  // of the request
    bool is_started = false, is_begun = false, is_broken = false, is_sloppy = false;
    std::string text;  // of the head so far
    // of the head that came last:
    int status = 0;
    bool is_1_0 = false, says_close = false, says_keep_alive = false;
    bool is_chunked = false, is_coded = false, is_open_type = false, is_websocket = false;
    std::optional<uint64_t> length;
    std::optional<uint32_t> waits;
    std::string first_line, fields;  // the latter with their line ends
    http_body body;
};
