#include "runtime/poll.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "main/gwa_log.h"
#include "runtime/gwa_util_memory.h"
#include "runtime/gwa_util_time.h"

namespace {

constexpr int EPOLL_SIZE_HINT = 64;
constexpr int TIMEOUT_DEFAULT = 100;  // ms
constexpr uint32_t INTEREST = EPOLLIN | EPOLLOUT | EPOLLET;

}  // namespace

static bool set_lock(poll_set* set) {
    const int error = pthread_rwlock_wrlock(&set->rwlock);
    if (error != 0) {
        GWA_LOG(ERROR, "wrlock failed %s", strerror(error));
    }
    return error == 0;
}

static bool set_unlock(poll_set* set) {
    const int error = pthread_rwlock_unlock(&set->rwlock);
    if (error != 0) {
        GWA_LOG(ERROR, "unlock failed %s", strerror(error));
    }
    return error == 0;
}

// Relaxed: the flag says nothing about other memory. An entry that is dead stays allocated until
// the owner itself frees it between two batches, or with the set.
static bool is_live(const poll_entry* entry) { return entry->live.load(std::memory_order_relaxed); }

static void free_entries(list<poll_entry>& entries) {
    for (poll_entry& entry : entries) {
        free(&entry);
    }
    list_reset(entries.head);
}

// The oldest live registration of `fd`, or null. The lock is held.
static poll_entry* find_live(poll_set* set, int fd) {
    for (list_link* link = set->fd_list.head.prev; link != &set->fd_list.head; link = link->prev) {
        auto* entry = static_cast<poll_entry*>(link);
        if (is_live(entry) && entry->fd == fd) {
            return entry;
        }
    }
    return nullptr;
}

int poll_init(poll_set* set) {
    if (set == nullptr) {
        GWA_LOG(ERROR, "set is NULL");
        return -1;
    }
    new (set) poll_set{};
    // Oddity 12: only -1 counts as a failure; the default attributes leave nothing that can fail.
    if (pthread_rwlock_init(&set->rwlock, nullptr) == -1) {
        GWA_LOG(ERROR, "init rwlock faile");
        return -1;
    }
    const int epfd = epoll_create(EPOLL_SIZE_HINT);
    if (epfd == -1) {
        GWA_LOG(ERROR, "epoll_create fail");
        return -1;
    }
    const int flags = fcntl(epfd, F_GETFD);
    if (flags == -1) {
        GWA_LOG_UNENDED(ERROR, "fcntl F_GETFD fail");
        close(epfd);
        return -1;
    }
    if (fcntl(epfd, F_SETFD, flags | FD_CLOEXEC) == -1) {
        // Oddity 12: a success whose first poll_add fails. No number that is closed is kept.
        GWA_LOG(ERROR, "fcntl fail");
        close(epfd);
        return 0;
    }
    set->epfd = epfd;
    return 0;
}

void poll_exit(poll_set* set) {
    if (set == nullptr || !set_lock(set)) {
        return;
    }
    for (list_link* link = set->fd_list.head.prev; link != &set->fd_list.head; link = link->prev) {
        auto* entry = static_cast<poll_entry*>(link);
        if (!is_live(entry)) {
            continue;  // epoll refused it, and whoever tried to add it has closed it
        }
        if (epoll_ctl(set->epfd, EPOLL_CTL_DEL, entry->fd, nullptr) == -1) {
            GWA_LOG(ERROR, "del fd %d fail, %s", entry->fd, strerror(errno));
        }
        if (entry->owner != nullptr) {
            *entry->owner = -1;
        }
        close(entry->fd);
    }
    free_entries(set->fd_list);
    free_entries(set->removed);
    set->fd_count = 0;
    if (set->epfd >= 0) {
        close(set->epfd);
        set->epfd = -1;
    }
    if (!set_unlock(set)) {
        return;
    }
    const int error = pthread_rwlock_destroy(&set->rwlock);
    if (error != 0) {
        GWA_LOG(ERROR, "destroy failed %s", strerror(error));
    }
}

int poll_add(poll_set* set, int fd, poll_callback callback, void* argument, int* owner) {
    if (set == nullptr) {
        GWA_LOG(ERROR, "set is NULL");
        return -1;
    }
    if (fd < 0) {
        GWA_LOG(ERROR, "fd < 0");
        return -1;
    }
    if (callback == nullptr) {
        GWA_LOG(ERROR, "callback is NULL");
        return -1;
    }
    poll_entry* entry = GWA_NEW(poll_entry);
    entry->fd = fd;
    entry->callback = callback;
    entry->argument = argument;
    entry->owner = owner;
    if (!set_lock(set)) {
        free(entry);
        return -1;
    }
    set->fd_list.push_front(*entry);
    if (set->fd_count == 0) {
        set->first_fd.store(fd, std::memory_order_relaxed);
    }
    set->fd_count++;
    // Under the lock: otherwise another thread's poll_del could come in between and leave epoll
    // with the address of an entry that is about to be freed.
    epoll_event event{};
    event.events = INTEREST;
    event.data.ptr = entry;
    const bool added = epoll_ctl(set->epfd, EPOLL_CTL_ADD, fd, &event) == 0;
    if (!added) {
        // Oddity 13: the number is the entry's address. The entry stays, counted, until poll_exit,
        // but is dead from here on: its descriptor number soon belongs to somebody else.
        GWA_LOG(ERROR, "add fd %d fail, %s", static_cast<int>(reinterpret_cast<uintptr_t>(entry)),
                strerror(errno));
        entry->live.store(false, std::memory_order_relaxed);
    }
    return set_unlock(set) && added ? 0 : -1;
}

int poll_del(poll_set* set, int fd) {
    if (set == nullptr) {
        GWA_LOG(ERROR, "set is NULL");
        return -1;
    }
    if (fd < 0) {
        GWA_LOG(ERROR, "fd < 0");
        return -1;
    }
    GWA_LOG(DEBUG, "del fd %d from poll", fd);
    if (!set_lock(set)) {
        return -1;
    }
    poll_entry* entry = find_live(set, fd);
    if (entry != nullptr) {
        if (epoll_ctl(set->epfd, EPOLL_CTL_DEL, fd, nullptr) == -1) {
            GWA_LOG(ERROR, "del fd %d fail, %s", fd, strerror(errno));
        }
        set->fd_count--;
        list_unlink(*entry);
        entry->live.store(false, std::memory_order_relaxed);
        set->removed.push_back(*entry);  // an event of the current batch may still name it
    }
    return set_unlock(set) ? 0 : -1;
}

int poll_rearm(poll_set* set, int fd) {
    if (set == nullptr) {
        GWA_LOG(ERROR, "set is NULL");
        return -1;
    }
    if (!set_lock(set)) {
        return -1;
    }
    bool armed = false;
    poll_entry* entry = find_live(set, fd);
    if (entry == nullptr) {
        GWA_LOG(ERROR, "rearm fd %d fail, not registered", fd);
    } else {
        epoll_event event{};
        event.events = INTEREST;
        event.data.ptr = entry;
        armed = epoll_ctl(set->epfd, EPOLL_CTL_MOD, fd, &event) == 0;
        if (!armed) {
            GWA_LOG(ERROR, "rearm fd %d fail, %s", fd, strerror(errno));
        }
    }
    return set_unlock(set) && armed ? 0 : -1;
}

// Frees what no batch can name any more. The number of registrations, or -1.
static int begin_wait(poll_set* set) {
    if (!set_lock(set)) {
        return -1;
    }
    free_entries(set->removed);
    const int count = set->fd_count;
    return set_unlock(set) ? count : -1;
}

// The time-out of a wait in ms.
static int wait_timeout(const poll_set* set) {
    if (set->timeout < POLL_TIMEOUT_MIN || set->timeout > POLL_TIMEOUT_MAX) {
        GWA_LOG(ERROR, "timeout error %d, use default", set->timeout);
        return TIMEOUT_DEFAULT;
    }
    return set->timeout;
}

// Delivers one event. False: it ends the owner's loop, or its callback has closed the set.
static bool dispatch(poll_set* set, const epoll_event& event) {
    const auto* entry = static_cast<const poll_entry*>(event.data.ptr);
    if (!is_live(entry)) {
        return true;  // removed since the wait
    }
    if ((event.events & (EPOLLIN | EPOLLOUT)) != 0) {
        entry->callback(event.events, entry->argument);
        return set->epfd != -1;  // closed: nothing that the batch names is there any more
    }
    if ((event.events & (EPOLLERR | EPOLLHUP)) != 0) {
        GWA_LOG(ERROR, "epoll event error, fd %d, event 0x%x", entry->fd, event.events);
        if (entry->fd == set->first_fd.load(std::memory_order_relaxed)) {
            return false;
        }
        poll_del(set, entry->fd);
    }
    return true;
}

// Both kinds of wait under one name, which the log shows for either.
static int poll_wait(poll_set* set, bool patient) {
    if (set == nullptr) {
        GWA_LOG(ERROR, "set is NULL");
        return -1;
    }
    if (begin_wait(set) < 1) {
        GWA_LOG(ERROR, "no fd in set");
        return -1;
    }
    const int timeout = patient ? wait_timeout(set) : 0;
    const int count = gwa_time.epoll_wait(set->epfd, set->events, POLL_BATCH, timeout);
    if (count == -1) {
        if (errno == EINTR) {
            return 0;
        }
        GWA_LOG(ERROR, "epoll_wait fail, %s", strerror(errno));
        return -1;
    }
    for (int i = 0; i < count; i++) {
        if (!dispatch(set, set->events[i])) {
            return -1;
        }
    }
    return 0;
}

int poll_wait(poll_set* set) { return poll_wait(set, true); }

int poll_now(poll_set* set) { return poll_wait(set, false); }
