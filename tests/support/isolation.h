// isolation.h - a machine of the test's own: private process, network and mount namespaces.
//
// In there the loopback interface is the only one, /etc/init.d is empty and writable, name servers
// are out of reach, and whatever a test leaves running ends with it.
#pragma once

// Starts this program anew in private namespaces. Comes back in there, and where the machine does
// not allow them, which it says on standard error. Called first of all.
void isolate(int argc, char** argv);

// True in there.
bool isolated();
