// gwa_args.h - the command line and everything that follows from it before the first thread starts.
//
// Threads: main thread, once.
#pragma once

// Parses the options, derives the paths, becomes a daemon if asked, replaces the pid file, installs
// the signal handlers, opens the log and builds the login settings. Returns only on success; every
// failure prints its reason and ends the process.
void args_parse(int argc, char* argv[]);
