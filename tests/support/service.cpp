#include "service.h"

#include <sys/socket.h>

#include <utility>

local_service::local_service(story serve_one) : serve(std::move(serve_one)) {
    acceptor = std::thread([this] { accept_all(); });
}

local_service::~local_service() {
    stopping = true;
    shutdown(listener.fd.get(), SHUT_RDWR);  // ends the accept
    acceptor.join();
    for (size_t i = 0; i < stories.size(); ++i) {
        shutdown(connections[i].get(), SHUT_RDWR);
        stories[i].join();
    }
}

void local_service::accept_all() {
    while (!stopping) {
        if (unique_fd fd = listener.accept()) {
            stories.emplace_back([this, number = fd.get()] {
                serve(number);
                ++stories_ended;
            });
            connections.push_back(std::move(fd));
        }
    }
}
