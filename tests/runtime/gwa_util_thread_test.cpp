#include "runtime/gwa_util_thread.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>

TEST(ThreadCreate, LeavesTheEndingSignalsToItsCreatorAndHasASmallStack) {
    pthread_t thread;
    const auto look = [](void*) -> void* {
        sigset_t blocked;
        pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
        EXPECT_TRUE(sigismember(&blocked, SIGINT) == 1 && sigismember(&blocked, SIGTERM) == 1);
        EXPECT_EQ(sigismember(&blocked, SIGUSR1), 0);
        EXPECT_NE(gwa_gettid(), static_cast<uint32_t>(getpid()));
        pthread_attr_t attributes;
        size_t stack = 0;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getstacksize(&attributes, &stack);
        pthread_attr_destroy(&attributes);
        EXPECT_LT(stack, 4U << 20) << "with a sanitizer it is half of that, usually twice as much";
        return nullptr;
    };
    ASSERT_EQ(gwa_thread_create(&thread, look, nullptr), 0);
    pthread_join(thread, nullptr);
    sigset_t ours;
    pthread_sigmask(SIG_BLOCK, nullptr, &ours);
    EXPECT_TRUE(sigismember(&ours, SIGINT) == 0 && sigismember(&ours, SIGTERM) == 0);
}
