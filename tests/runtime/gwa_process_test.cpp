#include "runtime/gwa_process.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "support/child.h"

TEST(ProcessPaths, LieUnderTheHomeDirectoryAndAreCutWithIt) {
    const std::string homes[] = {"", "/data/box", std::string(110, 'h'), std::string(300, 'h')};
    for (const std::string& home : homes) {
        const gwa_paths& paths = gwa_process_paths;
        gwa_process_paths_init(home.c_str());
        const std::string base = home.substr(0, 127);
        EXPECT_EQ(paths.home, base);
        EXPECT_EQ(paths.pid_file, (base + "/tmp/gwad.pid").substr(0, 126));
        EXPECT_EQ(paths.dlna_socket, (base + "/tmp/dlna.sock").substr(0, 126));
        EXPECT_EQ(paths.status_file, (base + "/tmp/gwad.stat").substr(0, 127));
        EXPECT_EQ(paths.firmware_file, (base + "/etc/firmware").substr(0, 127));
        EXPECT_EQ(paths.session_id_file, (base + "/tmp/session.id").substr(0, 127));
    }
}

TEST(ProcessEnd, SaysSoAndRunsNoExitHandlers) {
    child program([] {
        atexit([] { write(STDOUT_FILENO, "handler", 7); });
        GWA_EXIT(3);
    });
    EXPECT_EQ(program.wait(), 3);
    EXPECT_EQ(program.output(), "");
    EXPECT_NE(program.errors().find("<0> exit from func operator(), line gwa_process_test.cpp : "),
              std::string::npos)
        << program.errors();
}
