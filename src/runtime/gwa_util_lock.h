// gwa_util_lock.h - a mutex and the guard that holds it for a block.
//
// Clang's thread safety analysis reads the annotations and checks them (scripts/check): a field
// says which lock guards it, a function which lock its caller holds.
#pragma once

#include <pthread.h>

#ifdef __clang__
#define GWA_LOCK_ATTRIBUTE(x) __attribute__((x))
#else
#define GWA_LOCK_ATTRIBUTE(x)
#endif
#define GWA_GUARDED_BY(lock) GWA_LOCK_ATTRIBUTE(guarded_by(lock))
#define GWA_REQUIRES(lock) GWA_LOCK_ATTRIBUTE(requires_capability(lock))

// Neither made nor destroyed at run time, so nothing about it can fail.
struct GWA_LOCK_ATTRIBUTE(capability("mutex")) gwa_mutex {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
};

struct GWA_LOCK_ATTRIBUTE(scoped_lockable) gwa_lock {
    gwa_mutex& held;

    explicit gwa_lock(gwa_mutex& lock) GWA_LOCK_ATTRIBUTE(acquire_capability(lock)) : held(lock) {
        pthread_mutex_lock(&held.mutex);
    }
    gwa_lock(gwa_lock&&) = delete;
    ~gwa_lock() GWA_LOCK_ATTRIBUTE(release_capability()) { pthread_mutex_unlock(&held.mutex); }
};
