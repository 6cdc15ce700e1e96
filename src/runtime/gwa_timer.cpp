#include "runtime/gwa_timer.h"

#include <pthread.h>

#include <cstdlib>
#include <utility>

#include "main/gwa_log.h"
#include "runtime/gwa_util_memory.h"
#include "runtime/gwa_util_time.h"

gwa_timer_list* gwa_timer_default_list = nullptr;

static int64_t deadline_after(int64_t now, const gwa_timer* timer) {
    return now + int64_t{timer->interval} * GWA_US_PER_SECOND;
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

// Takes a timer out of the ring that it is in. Nothing happens to one that is in none.
static void detach(gwa_timer* timer) {
    list_unlink(*timer);
    list_reset(*timer);
}

static bool is_periodic(const gwa_timer* timer) { return (timer->mode & GWA_TIMER_PERIODIC) != 0; }

static void free_by_mode(gwa_timer* timer) {
    if ((timer->mode & GWA_TIMER_FREE_ARG) != 0) {
        free(timer->argument);
    }
    if ((timer->mode & GWA_TIMER_FREE_SELF) != 0) {
        free(timer);
    }
}

// Moves what is due to a ring of its own. A callback that stops, starts or destroys one of these
// timers takes it out there, so the pass has no place to lose (exception 54); and what a callback
// starts does not fire in the same pass, so every pass ends.
static void gather_due(gwa_timer_list* list, int64_t now) {
    gwa_timer* timer = list->timers.last();
    while (timer != nullptr && timer->deadline < now) {
        list_unlink(*timer);
        list->due.push_front(*timer);
        timer = list->timers.last();
    }
}

// Runs a callback, and frees what the mode says after a one-shot firing. True: a periodic timer is
// to be armed again. The last word is the callback's, which may have destroyed the timer, stopped
// it or started it again.
static bool fire(gwa_timer_list* list, gwa_timer* timer) {
    detach(timer);
    list->firing = timer;
    timer->callback(timer->argument);
    if (std::exchange(list->firing, nullptr) == nullptr || is_linked(timer)) {
        return false;
    }
    if (is_periodic(timer)) {
        return true;
    }
    free_by_mode(timer);
    return false;
}

// Fires what is due by `now`, and arms the periodic timers among it anew from there.
static void fire_due(gwa_timer_list* list, int64_t now) {
    gather_due(list, now);
    bool put_before_another = false;  // this pass has armed a timer in front of a later one
    while (gwa_timer* timer = list->due.last()) {
        if (!fire(list, timer)) {
            continue;
        }
        timer->deadline = deadline_after(now, timer);
        list_link& later = find_later(list, timer->deadline);
        const bool last_of_all = &later == &list->timers.head;
        // Oddity 14: the timer that would become the last of all is left out, stopped.
        if (!last_of_all || !put_before_another) {
            link_before_due(later, timer);
        }
        put_before_another = put_before_another || !last_of_all;
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
    const int64_t now = gwa_time.steady_us();
    if (pthread_mutex_lock(&list->mutex) != 0) {
        GWA_LOG(DEBUG, "lock failed, return");
        return -1;
    }
    const bool destroy = list->destroy;
    if (destroy) {
        GWA_LOG(DEBUG, "destroy self");
        drop_all(list);
    } else {
        fire_due(list, now);
    }
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

int gwa_timer_start(gwa_timer* timer) {
    const int64_t started = gwa_time.steady_us();
    gwa_timer_list* list = lock_list_of(timer);
    if (list == nullptr) {
        return -1;
    }
    detach(timer);  // linked twice it would break the ring
    timer->deadline = deadline_after(started, timer);
    const int64_t now = gwa_time.steady_us();
    if (timer->deadline < now) {
        GWA_LOG(DEBUG, "timer (%ld) now (%ld)",
                static_cast<long>(timer->deadline / GWA_US_PER_SECOND),
                static_cast<long>(now / GWA_US_PER_SECOND));
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
    if (list->firing == timer && is_periodic(timer)) {
        list->firing = nullptr;  // a one-shot timer that stops itself is still freed by its mode
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
