// main.cpp - runs the end-to-end tests on a machine of their own.
#include <gtest/gtest.h>

#include "support/isolation.h"

static int tests_run() { return RUN_ALL_TESTS(); }

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    return GTEST_FLAG_GET(list_tests) ? tests_run() : isolated_run(tests_run);
}
