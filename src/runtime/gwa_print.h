// gwa_print.h - what the running daemon says on standard output. It never blocks: a terminal or a
// pipe that nobody reads loses lines.
//
// Start-up, which comes before all of this, prints as any command does.
// Threads: gwa_print_init on the main thread, before others run; the rest any thread.
#pragma once

#include <cstddef>

// Takes over standard output as it is now. Until then lines are written as to a file.
void gwa_print_init();
// Prints one line, or one row of a table, its end included.
void gwa_print(const char* format, ...) __attribute__((format(printf, 1, 2)));
// The same for a signal handler: nothing but one write.
void gwa_print_signal_safe(const char* bytes, size_t size);
