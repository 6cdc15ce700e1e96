// gwa_main.h - the supervisor: start-up, the loop that discovers, logs in and runs the control
// connection, and the teardown.
#pragma once

// The whole program. Returns -1 only when the timer list or the network monitor cannot be made;
// otherwise it ends the process itself.
int gwa_main(int argc, char* argv[]);
