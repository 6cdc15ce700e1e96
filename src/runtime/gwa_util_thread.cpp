#include "runtime/gwa_util_thread.h"

#include <sys/syscall.h>
#include <unistd.h>

namespace {

// The sanitizers put red zones and shadow frames on the stack.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t THREAD_STACK = 8 * GWA_THREAD_STACK;
#else
constexpr size_t THREAD_STACK = GWA_THREAD_STACK;
#endif

}  // namespace

uint32_t gwa_gettid() { return static_cast<uint32_t>(syscall(SYS_gettid)); }

gwa_signals_held::gwa_signals_held() {
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGINT);
    sigaddset(&ending, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ending, &before);
}

gwa_signals_held::~gwa_signals_held() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }

int gwa_thread_create(pthread_t* thread, void* (*run)(void*), void* argument) {
    pthread_attr_t attributes;
    int failure = pthread_attr_init(&attributes);
    if (failure != 0) {
        return failure;
    }
    failure = pthread_attr_setstacksize(&attributes, THREAD_STACK);
    if (failure == 0) {
        // The new thread inherits the mask of its creator at this moment.
        const gwa_signals_held held;
        failure = pthread_create(thread, &attributes, run, argument);
    }
    pthread_attr_destroy(&attributes);
    return failure;
}
