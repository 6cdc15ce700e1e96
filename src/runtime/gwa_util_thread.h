// gwa_util_thread.h - threads as the daemon starts them.
#pragma once

#include <pthread.h>
#include <signal.h>

#include <cstddef>
#include <cstdint>

// The calling thread's kernel thread id.
uint32_t gwa_gettid();

// While it lives, SIGINT and SIGTERM wait: for its end in this thread, and in a thread or process
// that this one makes meanwhile until that lets them come.
struct gwa_signals_held {
    sigset_t before;

    gwa_signals_held();
    gwa_signals_held(gwa_signals_held&&) = delete;
    ~gwa_signals_held();
};

// Starts a thread with a stack of GWA_THREAD_STACK bytes that takes no SIGINT or SIGTERM: those
// belong to the main thread, whose waits they interrupt. 0 or the error number, as pthread_create.
constexpr size_t GWA_THREAD_STACK = size_t{256} * 1024;  // the resolver is the deepest caller
int gwa_thread_create(pthread_t* thread, void* (*run)(void*), void* argument);
