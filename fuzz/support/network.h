// network.h - a server that says an input in pieces, and what else there is outside of the process:
// every connection that the code opens ends in here, names are not asked for, programs do not run.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

// A descriptor of its own that is closed.
struct owned_fd {
    int fd = -1;
    owned_fd() = default;
    explicit owned_fd(int owned) : fd(owned) {}
    owned_fd(owned_fd&& from) noexcept;
    owned_fd& operator=(owned_fd&& from) noexcept;
    ~owned_fd();
};

// Two connected sockets, both non-blocking.
struct fd_pair {
    owned_fd ours, theirs;
    explicit fd_pair(int type);
};

// Reads and drops what has come.
void drain(int fd);

// The server at the other end of a connection. Whenever the code waits for it, it says the next
// piece of its text, and behind the last one the end.
class server {
   public:
    // The first byte says how large pieces are and how much time passes with each.
    explicit server(std::string_view input);
    // A socket that is connected to it, for the code, which closes it.
    int connection();
    void goes_on();
    bool has_ended() const { return ended; }

   private:
    std::string_view rest;
    size_t piece;
    int pause_s;
    owned_fd fd;
    bool ended = false;
};

// A folder of this process for sockets, and a client of one; none when it takes nobody.
const std::string& socket_folder();
owned_fd unix_client(const std::string& path, int type);

// Takes a connection in to a port, as a descriptor that is the caller's; -1 refuses it. Without one
// every connection is refused.
using acceptor = std::function<int(uint16_t port)>;
extern acceptor network_accept;

// Services on the box, one for each connection. What they do is the port's business: take and
// answer, only take, take nothing, or answer and leave.
class services {
   public:
    int connection(uint16_t port);
    void go_on();

   private:
    struct service {
        uint16_t port;
        owned_fd fd;
    };
    std::vector<service> all;
};
