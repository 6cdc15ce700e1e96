// gwa_restart.h - replaces the process by a new one through the box's init script.
//
// Threads: any; two at once start one daemon.
#pragma once

// Remembers the program and its arguments for the case that there is no init script. Called once at
// start-up; `argv` outlives the process.
void gwa_restart_init(char* const* argv);

// Forks a child that closes every descriptor, waits two seconds and runs the init script with
// "start" (or, where there is none, this program again), and ends this process with status 0.
// Returns only when the process has been told to end: it then ends in order and is not started
// again.
void gwa_restart();
