#include "runtime/gwa_util_thread.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>

TEST(ThreadCreate, LeavesTheEndingSignalsToItsCreatorAndHasASmallStack) {
    sigset_t inside, ours;
    pthread_t thread;
    const auto look = [](void* mask) -> void* {
        pthread_sigmask(SIG_BLOCK, nullptr, static_cast<sigset_t*>(mask));
        EXPECT_NE(gwa_gettid(), static_cast<uint32_t>(getpid()));
        pthread_attr_t attributes;
        size_t stack = 0;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getstacksize(&attributes, &stack);
        pthread_attr_destroy(&attributes);
        EXPECT_LT(stack, 4U << 20) << "with a sanitizer it is half of that, usually twice as much";
        return nullptr;
    };
    ASSERT_EQ(gwa_thread_create(&thread, look, &inside), 0);
    pthread_join(thread, nullptr);
    pthread_sigmask(SIG_BLOCK, nullptr, &ours);
    for (const int signal : {SIGINT, SIGTERM}) {
        EXPECT_EQ(sigismember(&inside, signal), 1);
        EXPECT_EQ(sigismember(&ours, signal), 0);
    }
    EXPECT_EQ(sigismember(&inside, SIGUSR1), 0);
}
