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
    {
        const std::lock_guard guard(lock);
        for (const int fd : open) {
            shutdown(fd, SHUT_RDWR);
        }
    }
    for (std::thread& one : stories) {
        one.join();
    }
}

void local_service::accept_all() {
    while (!stopping) {
        unique_fd fd = listener.accept();
        if (!fd) {
            continue;
        }
        ++connections;
        {
            const std::lock_guard guard(lock);
            open.push_back(fd.get());
        }
        stories.emplace_back([this, fd = std::move(fd)]() mutable {
            serve(fd.get());
            const std::lock_guard guard(lock);
            std::erase(open, fd.get());
            fd.reset();
            ++stories_ended;
        });
    }
}
