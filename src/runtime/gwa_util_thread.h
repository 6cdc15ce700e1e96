// gwa_util_thread.h - threads as the daemon starts them.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>

// The calling thread's kernel thread id.
uint32_t gwa_gettid();

// Starts a thread with a stack of GWA_THREAD_STACK bytes that takes no SIGINT or SIGTERM: those
// belong to the main thread, whose waits they interrupt. 0 or the error number, as pthread_create.
constexpr size_t GWA_THREAD_STACK = size_t{256} * 1024;  // the resolver is the deepest caller
int gwa_thread_create(pthread_t* thread, void* (*run)(void*), void* argument);
