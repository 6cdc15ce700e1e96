// main.cpp - runs the end-to-end tests on a machine of their own.
#include <gtest/gtest.h>

#include "support/isolation.h"

int main(int argc, char** argv) {
    isolate(argc, argv);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
