// service.h - a small TCP server in the test process, a thread a connection.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "sockets.h"

class local_service {
   public:
    using story = std::function<void(int fd)>;  // serves one connection, which is closed after it

    explicit local_service(story serve_one);
    local_service(local_service&&) = delete;
    ~local_service();  // shuts every connection down and waits for the stories to end

    uint16_t port() const { return listener.port; }
    int accepted() const { return connections; }
    int ended() const { return stories_ended; }

   private:
    void accept_all();

    story serve;
    loopback_listener listener;
    std::atomic<bool> stopping{false};
    std::atomic<int> connections{0}, stories_ended{0};
    std::mutex lock;  // guards `open`
    std::vector<int> open;
    std::vector<std::thread> stories;  // the accepting thread's, until it has ended
    std::thread acceptor;
};
