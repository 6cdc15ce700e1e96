// service.h - a small TCP server in the test process, a thread a connection.
#pragma once

#include <sys/socket.h>

#include <functional>
#include <thread>
#include <vector>

#include "sockets.h"

class local_service {
   public:
    // Each connection is served by a call of the story.
    explicit local_service(const std::function<void(int fd)>& story) {
        acceptor = std::thread([this, story] {
            while (unique_fd fd = listener.accept(std::chrono::hours{1})) {
                const int number = fd.get();
                served.emplace_back(std::move(fd), std::thread(story, number));
            }
        });
    }
    local_service(local_service&&) = delete;
    ~local_service() {  // ends every connection, and waits for the stories to end
        shutdown(listener.fd.get(), SHUT_RDWR);  // ends the accept
        acceptor.join();
        for (auto& [fd, thread] : served) {
            shutdown(fd.get(), SHUT_RDWR);
            thread.join();
        }
    }

    uint16_t port() const { return listener.port; }

   private:
    loopback_listener listener;
    std::vector<std::pair<unique_fd, std::thread>> served;  // the acceptor's until it has ended
    std::thread acceptor;
};
