// gwa_status.h - the traffic table for operators and the stall check.
//
// Threads: the timer thread runs gwa_status_check; the counters it reads have other writers, so a
//          row may mix values of slightly different moments.
#pragma once

// Timer callback, every 30 s: logs and writes the table, and every eleventh run restarts the
// process if a connection has received nothing since the last comparison. The argument is unused.
void gwa_status_check(void* argument);
