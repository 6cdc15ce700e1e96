// gwa_util_line.h - whole lines to a descriptor that may stop taking them: a terminal, a pipe or a
// socket that nobody reads any more.
//
// Nobody who stops reading may stop the daemon (exception 49), so a line that finds no room is
// dropped, and it is dropped whole: of one that was taken in part the rest is kept, and goes out
// before any other.
//
// Owner:   the holder of a sink closes it; a lock of the holder's guards it.
// Threads: any, under that lock; gwa_line_write_now alone needs none.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <span>

// How bytes get into a descriptor without waiting.
enum class gwa_line_way : uint8_t {
    WRITE,   // it does not block: a file, or a non-blocking descriptor of our own
    SEND,    // a socket: told with each call
    SWITCH,  // of others too, so it is made non-blocking for the length of one call
};

constexpr size_t GWA_LINE_MAX = 8192;  // what a line gets behind others that wait

struct gwa_line_sink {
    int fd = -1;       // -1: what is written goes nowhere
    bool own = false;  // the sink closes it
    gwa_line_way way = gwa_line_way::WRITE;
    std::span<char> buffer = {};  // the holder's, for one line, or for many that gather
    size_t begin = 0, end = 0;    // in it: what still has to go out
    bool gathered = false;        // whole lines, which wait for the next one
    bool stuck = false;           // the last line found no room: the next ones do not wait for any
};

// Chooses the way to `fd`, which stays the caller's. A terminal or a pipe gets a private
// non-blocking descriptor, where that can be had, because others use the same one.
void gwa_line_open(gwa_line_sink* sink, int fd);
// Closes the descriptor if it is the sink's own, and forgets it.
void gwa_line_close(gwa_line_sink* sink);

// Begins a line. False: what is left of an earlier one still keeps the place, so this one is lost.
bool gwa_line_begin(gwa_line_sink* sink);
// Adds to the line, cut at the end of the buffer.
void gwa_line_add_text(gwa_line_sink* sink, const char* text);
void gwa_line_add(gwa_line_sink* sink, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
void gwa_line_add_list(gwa_line_sink* sink, const char* format, va_list arguments)
    __attribute__((format(printf, 2, 0)));
// Sends the line. The first one that finds no room waits a moment for a slow reader.
void gwa_line_end(gwa_line_sink* sink);
// Keeps the line, if there is room for another one behind it, until the next one that is sent.
void gwa_line_end_later(gwa_line_sink* sink);
// Sends the lines that have been kept.
void gwa_line_flush(gwa_line_sink* sink);

// One attempt to write, past the sink's buffer. Async-signal-safe. The count, or -1.
ptrdiff_t gwa_line_write_now(const gwa_line_sink* sink, const char* bytes, size_t size);
