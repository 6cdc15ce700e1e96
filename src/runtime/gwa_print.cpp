#include "runtime/gwa_print.h"

#include <unistd.h>

#include <cstdarg>

#include "runtime/gwa_util_line.h"
#include "runtime/gwa_util_lock.h"

namespace {

gwa_mutex print_lock;  // guards the line; the way to it is chosen before there is a second thread
char line[512];        // exception 64
gwa_line_sink output{.fd = STDOUT_FILENO, .buffer = line};

}  // namespace

void gwa_print_init() { gwa_line_open(&output, STDOUT_FILENO); }

void gwa_print(const char* format, ...) {
    const gwa_lock held(print_lock);
    if (gwa_line_begin(&output)) {
        va_list arguments;
        va_start(arguments, format);
        gwa_line_add_list(&output, format, arguments);
        va_end(arguments);
        gwa_line_end(&output);
    }
}

void gwa_print_signal_safe(const char* bytes, size_t size) {
    [[maybe_unused]] const ptrdiff_t written = gwa_line_write_now(&output, bytes, size);
}
