#include "reporters/dlna_client.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "main/gwa_log.h"
#include "runtime/gwa_util_socket.h"

namespace {

constexpr int WORDS_PER_EVENT = 64;

}  // namespace

// The record of a descriptor; -1 finds a free one. Null: there is none.
static dlna_client* find(dlna_client_pool* pool, int fd) {
    for (dlna_client& client : pool->clients) {
        if (client.fd == fd) {
            return &client;
        }
    }
    return nullptr;
}

// A free record. Whoever opens connections and leaves them open must neither eat descriptors nor
// keep the media server out.
static dlna_client* room_make(dlna_client_pool* pool) {
    if (dlna_client* const free_one = find(pool, -1)) {
        return free_one;
    }
    dlna_client* const silent = std::min_element(
        std::begin(pool->clients), std::end(pool->clients),
        [](const dlna_client& a, const dlna_client& b) { return a.heard < b.heard; });
    GWA_LOG(ERROR, "too many dlna clients, fd %d is closed", silent->fd);
    dlna_client_end(pool, silent);
    return silent;
}

int dlna_client_begin(dlna_client_pool* pool, int fd, poll_callback callback) {
    gwa_socket_nonblock(fd);
    dlna_client* const client = room_make(pool);
    void* const argument = reinterpret_cast<void*>(static_cast<intptr_t>(fd));
    if (poll_add(pool->poller, fd, callback, argument) != 0) {
        close(fd);
        return -1;
    }
    *client = {.fd = fd, .heard = ++pool->signs};
    return 0;
}

void dlna_client_end(dlna_client_pool* pool, dlna_client* client) {
    poll_del(pool->poller, client->fd);
    close(client->fd);
    client->fd = -1;
}

dlna_client* dlna_client_heard(dlna_client_pool* pool, int fd) {
    dlna_client* const client = find(pool, fd);
    if (client != nullptr) {
        client->heard = ++pool->signs;
    }
    return client;
}

dlna_read dlna_client_words_read(dlna_client* client, uint32_t* word) {
    for (int words = 0; words < WORDS_PER_EVENT; words++) {
        const ssize_t got =
            recv(client->fd, client->bytes + client->have, sizeof client->bytes - client->have, 0);
        if (got == -1) {
            return errno == EAGAIN ? dlna_read::NOTHING : dlna_read::FAILED;
        }
        if (got == 0) {
            return dlna_read::CLOSED;
        }
        client->have += static_cast<uint32_t>(got);
        if (client->have == sizeof client->bytes) {
            memcpy(word, client->bytes, sizeof *word);
            client->have = 0;
        }
    }
    return dlna_read::MORE;
}
