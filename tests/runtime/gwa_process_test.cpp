#include "runtime/gwa_process.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "support/child.h"

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
