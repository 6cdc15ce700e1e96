#include "support/process.h"

#include <fcntl.h>
#include <unistd.h>

#include "connection/gwa_connection.h"
#include "login/gwa_login.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_types.h"
#include "support/clock.h"

namespace {

struct process_end {};

}  // namespace

void process_ends() { throw process_end{}; }

extern "C" {

[[noreturn]] void __wrap__Z16gwa_process_exiti(int);
void __wrap__Z16gwa_process_exiti(int) { process_ends(); }

[[noreturn]] void __wrap__Z17gwa_process_abortPKciS0_(const char*, int, const char*);
void __wrap__Z17gwa_process_abortPKciS0_(const char*, int, const char*) { process_ends(); }

int LLVMFuzzerInitialize(int*, char***);
// All lines are formatted, for what they read; nobody reads them.
int LLVMFuzzerInitialize(int*, char***) {
    must(gwa_log_init("/dev/null", false) == 0);
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(nowhere, STDOUT_FILENO);
    close(nowhere);
    clock_install();
    text_copy(gwa_process_paths.home, "/no/such/folder");
    text_copy(gwa_process_paths.session_id_file, "/dev/null");
    must(gwa_login_init("localhost", nullptr, nullptr, nullptr, "lo", "box") == 0);
    return 0;
}

}  // extern "C"

void process_run(const std::function<void()>& body) {
    gwa_log_level_set(GWA_LEVEL_DEBUG);  // a request may have set another one
    gwa_process_run = 1;
    gwa_connection_run = 1;
    gwa_connection_table_init();
    clock_reset();
    try {
        body();
    } catch (const process_end&) {
    }
}
