// isolation.h - a machine of the test's own: private process, network and mount namespaces.
//
// In there the loopback interface is the only one, /etc/init.d is empty and writable, name servers
// are out of reach, and whatever a test leaves running ends with it.
#pragma once

// Runs `tests` in private namespaces and returns its result; where the machine does not allow
// them, says so on standard error and runs it as it stands. Called once, before any thread starts.
int isolated_run(int (*tests)());

// True within isolated_run, when the machine allowed it.
bool isolated();
