#include "runtime/gwa_process.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "support/child.h"

TEST(ProcessPaths, AreCutWithALongHomeDirectory) {
    const std::string home(115, 'h');
    gwa_process_paths_init(home.c_str());
    EXPECT_EQ(gwa_process_paths.pid_file, home + "/tmp/gwad.p");
    EXPECT_EQ(gwa_process_paths.session_id_file, home + "/tmp/session");
    gwa_process_paths_init(std::string(300, 'h').c_str());
    EXPECT_EQ(gwa_process_paths.home, std::string(127, 'h'));
    EXPECT_EQ(gwa_process_paths.dlna_socket, std::string(126, 'h'));
}

TEST(ProcessEnd, SaysSoAndRunsNoExitHandlers) {
    child program([] {
        atexit([] { write(STDOUT_FILENO, "handler", 7); });
        GWA_EXIT(3);
    });
    EXPECT_EQ(program.wait(), 3);
    EXPECT_EQ(program.output(), "");
    EXPECT_NE(program.errors().find("<0> exit from func operator(), line gwa_process_test.cpp : "),
              std::string::npos);
}
