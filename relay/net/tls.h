// tls.h - TLS, which ends in front of everything else: what is inside goes on over a pair of
// sockets in this process, as a connection like any other.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <unordered_map>

#include "net/connection.h"

namespace asio::ssl {
class context;
}

struct tls_files {
    std::string certificate, key;                // PEM, the certificate with those above it
    int64_t certificate_time = 0, key_time = 0;  // of what has been read
};

// A front where TLS ends.
struct tls_front {
    std::shared_ptr<asio::ssl::context> context;  // null: there is no TLS
    tls_files files;
    int64_t ends = 0;       // the certificate, in seconds since 1970
    size_t handshakes = 0;  // that are under way
    std::unordered_map<std::string, size_t> handshakes_of;  // by address
};

// False, with the reason: the files are no certificate and its key.
bool tls_load(tls_front& front, const std::string& certificate, const std::string& key,
              std::string& error);
// Loads them anew when they have changed. While they make no sense, what was there before stays.
void tls_look(tls_front& front);

// Makes a connection of the plain side of one that has come: the peer's "address:port".
using tls_begin =
    std::function<std::shared_ptr<connection>(tcp::socket plain, const std::string& peer)>;
// One connection, up to its end.
awaitable<void> tls_serve(tls_front& front, tcp::socket accepted, milliseconds linger,
                          tls_begin begin);
