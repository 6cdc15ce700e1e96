// run_flags.h - the two run flags for one test, back at their start-up values afterwards.
#pragma once

#include "runtime/gwa_process.h"

struct run_flags {
    explicit run_flags(bool process, bool connection = true) {
        gwa_process_run = process;
        gwa_connection_run = connection;
    }
    run_flags(run_flags&&) = delete;
    ~run_flags() {
        gwa_process_run = 1;
        gwa_connection_run = 0;
    }
};
