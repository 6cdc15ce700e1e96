#include "runtime/gwa_timer.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "main/gwa_log.h"
#include "runtime/gwa_util_memory.h"
#include "runtime/gwa_util_thread.h"
#include "runtime/gwa_util_time.h"

gwa_timer_list* gwa_timer_default_list = nullptr;

namespace {

constexpr int64_t US_PER_S = 1000000;
constexpr int THREAD_START_US = 1000;  // lets a new list's thread come up
constexpr int END_PROBES = 3;          // a second apart

}  // namespace

static int64_t deadline_after(int64_t now, const gwa_timer* timer) {
    return now + int64_t{timer->interval} * US_PER_S;
}

// The first timer, from the tail on, that is due later than `deadline`, or the head.
static list_link& find_later(gwa_timer_list* list, int64_t deadline) {
    list_link* link = list->timers.head.prev;
    while (link != &list->timers.head && static_cast<gwa_timer*>(link)->deadline <= deadline) {
        link = link->prev;
    }
    return *link;
}

// Links a timer so that it is due right before `later`; the head stands for no later one.
static void link_before_due(list_link& later, gwa_timer* timer) {
    list_insert_before(*later.next, *timer);
}

static bool is_linked(const gwa_timer* timer) { return timer->next != timer; }

// Takes a timer out of its list, under a running walk too. Nothing happens to one that is in none.
static void detach(gwa_timer* timer) {
    if (timer->list->next_due == timer) {
        timer->list->next_due = timer->prev;
    }
    list_unlink(*timer);
    list_reset(*timer);
}

static void free_by_mode(gwa_timer* timer) {
    if ((timer->mode & GWA_TIMER_FREE_ARG) != 0) {
        free(timer->argument);
    }
    if ((timer->mode & GWA_TIMER_FREE_SELF) != 0) {
        free(timer);
    }
}

// Locks the list of a timer. Null: there is none to lock.
static gwa_timer_list* lock_list_of(gwa_timer* timer) {
    if (timer == nullptr || timer->list == nullptr) {
        GWA_LOG(ERROR, "timer is inited");
        return nullptr;
    }
    if (pthread_mutex_lock(&timer->list->mutex) != 0) {
        GWA_LOG(DEBUG, "lock failed");
        return nullptr;
    }
    return timer->list;
}

// The result of the operation.
static int unlock_list(gwa_timer_list* list) {
    if (pthread_mutex_unlock(&list->mutex) != 0) {
        GWA_LOG(DEBUG, "unlock failed");
        return -1;
    }
    return 0;
}

// Arms a periodic timer that has fired.
static void rearm(gwa_timer_list* list, gwa_timer* timer, int64_t now, bool* reinserted) {
    timer->deadline = deadline_after(now, timer);
    list_link& later = find_later(list, timer->deadline);
    if (&later != &list->timers.head) {
        link_before_due(later, timer);
        *reinserted = true;
    } else if (!*reinserted) {
        link_before_due(later, timer);
    }
    // Otherwise, oddity 14: the timer that would become the last of all is left out, stopped, when
    // this pass has already put another one in front of a later one.
}

// Runs the callback of one timer that is due, and then does what its mode says. The callback may
// have destroyed the timer, stopped it or started it again; the last word is the callback's.
static void fire(gwa_timer_list* list, gwa_timer* timer, int64_t now, bool* reinserted) {
    detach(timer);
    list->firing = timer;
    list->rearm = (timer->mode & GWA_TIMER_PERIODIC) != 0;
    if (timer->callback != nullptr) {
        timer->callback(timer->argument);
    }
    if (list->firing == nullptr || is_linked(timer)) {
        list->firing = nullptr;
        return;
    }
    list->firing = nullptr;
    if ((timer->mode & GWA_TIMER_PERIODIC) == 0) {
        free_by_mode(timer);
    } else if (list->rearm) {
        rearm(list, timer, now, reinserted);
    }
}

// The end of a list's thread: pending timers go, whatever their modes say; arguments stay.
static void drop_all(gwa_timer_list* list) {
    for (gwa_timer& timer : list->timers) {
        free(&timer);
    }
    list_reset(list->timers.head);
}

int gwa_timer_expire_check(gwa_timer_list* list) {
    const int64_t now = gwa_time.now_us();
    if (pthread_mutex_lock(&list->mutex) != 0) {
        GWA_LOG(DEBUG, "lock failed, return");
        return -1;
    }
    const bool destroy = list->destroy;
    if (destroy) {
        GWA_LOG(DEBUG, "destroy self");
        drop_all(list);
    }
    bool reinserted = false;
    list->next_due = list->timers.head.prev;
    while (list->next_due != &list->timers.head) {
        auto* timer = static_cast<gwa_timer*>(list->next_due);
        if (timer->deadline >= now) {  // NOLINT(clang-analyzer-unix.Malloc): detach has moved on
            break;
        }
        fire(list, timer, now, &reinserted);
    }
    list->next_due = nullptr;
    if (pthread_mutex_unlock(&list->mutex) != 0) {
        GWA_LOG(DEBUG, "unlock failed, return");
        return -1;
    }
    if (destroy) {
        GWA_LOG(DEBUG, "timer thread exit");
        return -1;
    }
    return 0;
}

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

int gwa_timer_init(gwa_timer_callback callback, void* argument, uint32_t interval, uint32_t mode,
                   gwa_timer_list* list, gwa_timer** out) {
    if (callback == nullptr) {
        GWA_LOG(ERROR, "callback is null");
        return -1;
    }
    if (out == nullptr) {
        GWA_LOG(ERROR, "timer is null");
        return -1;
    }
    if (list == nullptr) {
        GWA_LOG(DEBUG, "use the default timer list");
        list = gwa_timer_default_list;  // null too: the timer then fails at its start
    }
    gwa_timer* timer = GWA_NEW(gwa_timer);
    timer->list = list;
    timer->callback = callback;
    timer->argument = argument;
    timer->interval = interval;
    timer->mode = mode;
    *out = timer;
    GWA_LOG(DEBUG, "timer %p is inited", static_cast<void*>(timer));
    return 0;
}

int gwa_timer_start(gwa_timer* timer) {
    const int64_t started = gwa_time.now_us();
    gwa_timer_list* list = lock_list_of(timer);
    if (list == nullptr) {
        return -1;
    }
    detach(timer);  // linked twice it would break the ring
    timer->deadline = deadline_after(started, timer);
    const int64_t now = gwa_time.now_us();
    if (timer->deadline < now) {
        GWA_LOG(DEBUG, "timer (%ld) now (%ld)", static_cast<long>(timer->deadline / US_PER_S),
                static_cast<long>(now / US_PER_S));
        GWA_LOG(DEBUG, "warning: timer %p is expired before start", static_cast<void*>(timer));
        timer->callback(timer->argument);  // from here on the timer may be gone
        return unlock_list(list);
    }
    link_before_due(find_later(list, timer->deadline), timer);
    return unlock_list(list);
}

int gwa_timer_stop(gwa_timer* timer) {
    gwa_timer_list* list = lock_list_of(timer);
    if (list == nullptr) {
        return -1;
    }
    detach(timer);
    if (list->firing == timer) {
        list->rearm = false;
    }
    return unlock_list(list);
}

int gwa_timer_destroy(gwa_timer* timer) {
    gwa_timer_list* list = lock_list_of(timer);
    if (list == nullptr) {
        return -1;
    }
    detach(timer);
    if (list->firing == timer) {
        list->firing = nullptr;
    }
    free_by_mode(timer);
    return unlock_list(list);
}

int gwa_timer_expire_modify(gwa_timer* timer, uint32_t interval) {
    gwa_timer_list* list = lock_list_of(timer);
    if (list == nullptr) {
        return -1;
    }
    timer->interval = interval;
    return unlock_list(list);
}

static void show_timer(const list_link* link) {
    const auto* timer = static_cast<const gwa_timer*>(link);
    GWA_LOG(DEBUG, "timer %p, expire %u, callback %p", static_cast<const void*>(timer),
            timer->interval, reinterpret_cast<void*>(timer->callback));
}

void gwa_timer_list_show(gwa_timer_list* list) {
    if (pthread_mutex_lock(&list->mutex) != 0) {
        GWA_LOG(DEBUG, "lock failed");
        return;
    }
    const list_link* head = &list->timers.head;
    GWA_LOG(DEBUG, "timer list show ... next ");
    for (const list_link* link = head->next; link != head; link = link->next) {
        show_timer(link);
    }
    GWA_LOG(DEBUG, "timer list show ... prev ");
    for (const list_link* link = head->prev; link != head; link = link->prev) {
        show_timer(link);
    }
    unlock_list(list);
}
