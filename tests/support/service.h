// service.h - a small TCP server in the test process, a thread a connection.
#pragma once

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include "sockets.h"

class local_service {
   public:
    using story = std::function<void(int fd)>;  // serves one connection

    explicit local_service(story serve_one);
    local_service(local_service&&) = delete;
    ~local_service();  // ends every connection, and waits for the stories to end

    uint16_t port() const { return listener.port; }
    int ended() const { return stories_ended; }

   private:
    void accept_all();

    story serve;
    loopback_listener listener;
    std::atomic<bool> stopping{false};
    std::atomic<int> stories_ended{0};
    std::vector<unique_fd> connections;  // with their stories the acceptor's, until it has ended
    std::vector<std::thread> stories;
    std::thread acceptor;
};
