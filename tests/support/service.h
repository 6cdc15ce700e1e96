// service.h - a small TCP server in the test process, a thread a connection.
#pragma once

#include <sys/socket.h>

#include <atomic>
#include <functional>
#include <list>
#include <thread>

#include "sockets.h"

class local_service {
   public:
    // Each connection is served by a call of the story.
    explicit local_service(const std::function<void(int fd)>& story) {
        acceptor = std::thread([this, story] {
            while (unique_fd fd = listener.accept(std::chrono::hours{1})) {
                served.emplace_back(std::move(fd), std::thread());
                served.back().second =
                    std::thread([this, story, number = served.back().first.get()] {
                        story(number);
                        ++stories_ended;
                    });
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
    int ended() const { return stories_ended; }

   private:
    loopback_listener listener;
    std::atomic<int> stories_ended{0};
    std::list<std::pair<unique_fd, std::thread>> served;  // the acceptor's until it has ended
    std::thread acceptor;
};
