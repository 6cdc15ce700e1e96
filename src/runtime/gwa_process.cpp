#include "runtime/gwa_process.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "runtime/gwa_types.h"
#include "runtime/gwa_util_line.h"

std::atomic<int32_t> gwa_process_run{1};
std::atomic<int32_t> gwa_connection_run{0};
std::atomic<int32_t> gwa_process_jump{GWA_JUMP_NONE};
gwa_paths gwa_process_paths;

namespace {

constexpr size_t ABORT_TEXT_SIZE = 256;

}  // namespace

void gwa_process_paths_init(const char* home) {
    gwa_paths& paths = gwa_process_paths;
    char base[GWA_HOME_SIZE];
    text_copy(base, home == nullptr ? "" : home);
    text_copy(paths.home, base);
    snprintf(paths.pid_file, sizeof paths.pid_file, "%s/tmp/gwad.pid", base);
    snprintf(paths.dlna_socket, sizeof paths.dlna_socket, "%s/tmp/dlna.sock", base);
    snprintf(paths.status_file, sizeof paths.status_file, "%s/tmp/gwad.stat", base);
    snprintf(paths.firmware_file, sizeof paths.firmware_file, "%s/etc/firmware", base);
    snprintf(paths.session_id_file, sizeof paths.session_id_file, "%s/tmp/session.id", base);
}

void gwa_process_exit(int status) { _exit(status); }

void gwa_process_abort(const char* file, int line, const char* function) {
    char text[ABORT_TEXT_SIZE];
    gwa_line_sink errors{.buffer = text};
    gwa_line_open(&errors, STDERR_FILENO);  // must not keep us from the end
    if (gwa_line_begin(&errors)) {
        gwa_line_add(&errors, "gwad: %s:%d: %s: Assertion `0' failed.\n", file, line, function);
        gwa_line_end(&errors);
    }
    abort();
}
