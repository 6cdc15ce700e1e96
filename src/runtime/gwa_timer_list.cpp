#include "runtime/gwa_timer_list.h"

#include <cstdlib>
#include <cstring>

#include "main/gwa_log.h"
#include "runtime/gwa_util_memory.h"
#include "runtime/gwa_util_thread.h"
#include "runtime/gwa_util_time.h"

namespace {

constexpr int THREAD_START_US = 1000;  // lets a new list's thread come up
constexpr int END_PROBES = 3;          // a second apart

}  // namespace

static void* gwa_timer_loop(void* argument) {
    auto* list = static_cast<gwa_timer_list*>(argument);
    GWA_LOG(DEBUG, "timer loop start ...");
    pthread_detach(pthread_self());
    while (gwa_timer_expire_check(list) == 0) {
        gwa_sleep(1);
        gwa_now_refresh();
    }
    GWA_LOG(DEBUG, "expire check failed, return");
    list->ended.store(true, std::memory_order_release);
    return nullptr;
}

// Recursive, because callbacks run with it held and use this API, on whichever thread they run.
static int init_recursive_mutex(pthread_mutex_t* mutex) {
    pthread_mutexattr_t attributes;
    int error = pthread_mutexattr_init(&attributes);
    if (error != 0) {
        return error;
    }
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    error = pthread_mutex_init(mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
    return error;
}

int gwa_timer_list_make(gwa_timer_list** out) {
    gwa_timer_list* list = GWA_NEW(gwa_timer_list);
    const int error = init_recursive_mutex(&list->mutex);
    if (error != 0) {
        GWA_LOG(DEBUG, "mutex init failed %s", strerror(error));
        free(list);
        return -1;
    }
    *out = list;
    return 0;
}

int gwa_timer_list_init(gwa_timer_list** out) {
    if (out == nullptr) {
        GWA_LOG(ERROR, "list is null");
        return -1;
    }
    gwa_timer_list* list = nullptr;
    if (gwa_timer_list_make(&list) != 0) {
        return -1;
    }
    const int error = gwa_thread_create(&list->thread, gwa_timer_loop, list);
    if (error != 0) {
        GWA_LOG(DEBUG, "create thread failed %s", strerror(error));
        pthread_mutex_destroy(&list->mutex);
        free(list);
        return -1;
    }
    gwa_usleep(THREAD_START_US);
    *out = list;
    return 0;
}

int gwa_timer_list_destroy(gwa_timer_list* list) {
    if (list == nullptr) {
        GWA_LOG(ERROR, "timer list is inited");
        return -1;
    }
    if (pthread_mutex_lock(&list->mutex) != 0) {
        GWA_LOG(DEBUG, "lock failed");
        return -1;
    }
    list->destroy = true;
    if (pthread_mutex_unlock(&list->mutex) != 0) {
        GWA_LOG(DEBUG, "unlock failed");
        return -1;
    }
    // The thread is only looked at, never signalled: a signal could end the whole process.
    bool ended = pthread_equal(list->thread, pthread_t{}) != 0;
    for (int probe = 0; !ended && probe < END_PROBES; probe++) {
        gwa_sleep(1);
        ended = list->ended.load(std::memory_order_acquire);
        if (ended) {
            GWA_LOG(DEBUG, "main thread have exited");
        }
    }
    if (!ended) {
        GWA_LOG(DEBUG, "main thread not exit");
        return 0;  // the list is the thread's from here on
    }
    pthread_mutex_destroy(&list->mutex);
    free(list);
    return 0;
}

int gwa_timer_default_init() {
    return gwa_timer_default_list == nullptr ? gwa_timer_list_init(&gwa_timer_default_list) : 0;
}

int gwa_timer_default_exit() {
    if (gwa_timer_default_list == nullptr) {
        return 0;
    }
    if (gwa_timer_list_destroy(gwa_timer_default_list) != 0) {
        return -1;
    }
    gwa_timer_default_list = nullptr;
    return 0;
}

// Walks a ring either way.
static void show_ring(const list<gwa_timer>& ring, list_link* list_link::*way) {
    for (const list_link* link = ring.head.*way; link != &ring.head; link = link->*way) {
        const auto* timer = static_cast<const gwa_timer*>(link);
        GWA_LOG(DEBUG, "timer %p, expire %u, callback %p", static_cast<const void*>(timer),
                timer->interval, reinterpret_cast<void*>(timer->callback));
    }
}

void gwa_timer_list_show(gwa_timer_list* list) {
    if (pthread_mutex_lock(&list->mutex) != 0) {
        GWA_LOG(DEBUG, "lock failed");
        return;
    }
    GWA_LOG(DEBUG, "timer list show ... next ");
    show_ring(list->timers, &list_link::next);
    show_ring(list->due, &list_link::next);
    GWA_LOG(DEBUG, "timer list show ... prev ");
    show_ring(list->due, &list_link::prev);
    show_ring(list->timers, &list_link::prev);
    if (pthread_mutex_unlock(&list->mutex) != 0) {
        GWA_LOG(DEBUG, "unlock failed");
    }
}
