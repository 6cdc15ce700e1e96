// main.cpp - runs the end-to-end tests on a machine of their own: private process, network and
// mount namespaces. In there the loopback interface is the only one, /etc/init.d, /etc/hosts and
// /tmp are the test's to write (what the checkout is in stays, should that be in /tmp as well),
// name servers are out of reach, and whatever a test leaves running ends with it.
#include <gtest/gtest.h>
#include <unistd.h>

#include "box.h"

constexpr char IN_THERE[] = "GWAD_TEST_ISOLATED";
// The shell stays, as the first process there is: it takes in the orphans of the others, and
// sanitizers could not look for leaks in its place.
constexpr char SET_UP[] =
    "PATH=$PATH:/usr/sbin:/sbin; mount -t tmpfs tmpfs /etc/init.d && cp /etc/hosts /etc/init.d && "
    "mount --bind /etc/init.d/hosts /etc/hosts && ip link set lo up || exit 1; "
    "mount -t tmpfs tmpfs /mnt || exit 1; "
    "case $PWD in /tmp/*) top=${PWD#/tmp/}; top=/${top%%/*}; "
    "mkdir /mnt$top && mount --bind /tmp$top /mnt$top || exit 1; esac; "
    "mount --rbind /mnt /tmp && mkdir -p \"${TMPDIR-/tmp}\" && cd \"$PWD\" || exit 1; "
    "\"$@\"; exit $?";

bool isolated() { return getenv(IN_THERE) != nullptr; }

// Starts this program anew in there. Comes back in there, and where the machine does not allow it.
static void isolate(int argc, char** argv) {
    for (const char* user : {"--pid", "--map-root-user"}) {  // root needs no user namespace
        std::vector<std::string> command = {
            "/usr/bin/unshare", "--fork", "--kill-child", "--pid", "--net", "--mount-proc", user,
            "/bin/sh",          "-c",     SET_UP,         "sh"};
        if (!isolated() && child(command).wait() == 0) {
            command.insert(command.end(), argv, argv + argc);
            setenv(IN_THERE, "", 1);
            execv(command[0].c_str(), argument_list(command).data());
        }
    }
}

int main(int argc, char** argv) {
    isolate(argc, argv);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
