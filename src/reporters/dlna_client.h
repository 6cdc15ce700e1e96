// dlna_client.h - the media servers that are connected: a box has one, and room for a few more.
//
// Owner:   the pool; the poller closes what is left when its connection ends.
// Threads: main thread.
#pragma once

#include <cstdint>

#include "runtime/poll.h"

constexpr int DLNA_CLIENTS_MAX = 16;

struct dlna_client {
    int fd = -1;            // -1: nobody
    uint32_t have = 0;      // bytes of the word that has begun
    uint64_t heard = 0;     // order of the last sign of life
    uint8_t bytes[4] = {};  // the word, host order
};

struct dlna_client_pool {
    poll_set* poller = nullptr;  // where clients are registered
    dlna_client clients[DLNA_CLIENTS_MAX];
    uint64_t signs = 0;  // of life, of all clients
};

enum class dlna_read : uint8_t {
    NOTHING,  // all is read
    MORE,     // the budget of one event is used up
    CLOSED,   // by the client
    FAILED,   // errno says why
};

// Registers an accepted descriptor, which the pool closes from here on, with the callback that gets
// the descriptor as its argument. When there is no room, the client that has been silent the
// longest gives way (exception 56). 0, or -1.
int dlna_client_begin(dlna_client_pool* pool, int fd, poll_callback callback);
void dlna_client_end(dlna_client_pool* pool, dlna_client* client);
// The client of a descriptor, which has shown a sign of life; null when it has given way.
dlna_client* dlna_client_heard(dlna_client_pool* pool, int fd);
// Reads what waits; the last whole word, if there is one, goes to `word`. The beginning of a word
// is kept for the next event, so that a client that writes byte by byte keeps its step (exception
// 63).
dlna_read dlna_client_words_read(dlna_client* client, uint32_t* word);
