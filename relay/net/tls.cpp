#include "net/tls.h"

#include <sys/socket.h>

#include <array>
#include <asio/ssl.hpp>
#include <filesystem>

#include "net/ranges.h"

namespace {

using tls_stream = asio::ssl::stream<tcp::socket>;

constexpr size_t HANDSHAKES_MAX = 512, HANDSHAKES_OF_ADDRESS = 64;
constexpr milliseconds HANDSHAKE_TIME{10'000};
constexpr size_t PIECE = 32 * 1024;
constexpr unsigned char HTTP_1_1[] = "\x08http/1.1";

int choose_protocol(SSL*, const unsigned char** chosen, unsigned char* size,
                    const unsigned char* offered, unsigned offered_size, void*) {
    unsigned char* found = nullptr;
    const int result =
        SSL_select_next_proto(&found, size, HTTP_1_1, sizeof HTTP_1_1 - 1, offered, offered_size);
    *chosen = found;
    return result == OPENSSL_NPN_NEGOTIATED ? SSL_TLSEXT_ERR_OK : SSL_TLSEXT_ERR_NOACK;
}

// Seconds since 1970.
int64_t end_of(asio::ssl::context& context) {
    constexpr int64_t DAY_S = 86400;
    int days = 0, seconds = 0;
    const X509* const certificate = SSL_CTX_get0_certificate(context.native_handle());
    ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(certificate));
    return time(nullptr) + days * DAY_S + seconds;
}

// When it was written; a link is followed.
int64_t time_of(const std::string& path) {
    std::error_code failed;
    return std::filesystem::last_write_time(path, failed).time_since_epoch().count();
}

// A connection with both its sides, shared by what carries bytes each way.
struct bridge {
    tls_stream outer;
    tcp::socket inner;
    std::shared_ptr<connection> link;

    void close(bool reset) {
        asio::error_code ignored;
        if (reset) {
            outer.next_layer().set_option(asio::socket_base::linger(true, 0), ignored);
        }
        outer.next_layer().close(ignored);
        inner.close(ignored);
    }
};

awaitable<void> close_later(std::shared_ptr<bridge> both, milliseconds time) {
    asio::steady_timer timer(both->inner.get_executor(), time);
    co_await timer.async_wait(asio::use_awaitable);
    both->close(false);
}

awaitable<void> carry_in(std::shared_ptr<bridge> both) {
    const auto buffer = std::make_unique<std::array<char, PIECE>>();
    asio::error_code failed;
    while (!failed) {
        const size_t got = co_await both->outer.async_read_some(
            asio::buffer(*buffer), asio::redirect_error(asio::use_awaitable, failed));
        if (got > 0) {
            co_await asio::async_write(both->inner, asio::buffer(*buffer, got),
                                       asio::redirect_error(asio::use_awaitable, failed));
        }
    }
    // Many end without saying so, which costs the relay nothing to believe.
    asio::error_code ignored;
    const bool ended = failed == asio::error::eof || failed == asio::ssl::error::stream_truncated;
    if (ended && both->inner.is_open()) {
        both->inner.shutdown(tcp::socket::shutdown_send, ignored);
    } else {
        both->close(true);
    }
}

awaitable<void> carry_out(std::shared_ptr<bridge> both, milliseconds linger) {
    const auto buffer = std::make_unique<std::array<char, PIECE>>();
    asio::error_code failed;
    while (!failed) {
        const size_t got = co_await both->inner.async_read_some(
            asio::buffer(*buffer), asio::redirect_error(asio::use_awaitable, failed));
        if (got > 0) {
            co_await asio::async_write(both->outer, asio::buffer(*buffer, got),
                                       asio::redirect_error(asio::use_awaitable, failed));
        }
    }
    // An end that the relay does not mean as one must not look like the end of a response.
    if (failed != asio::error::eof || both->link->resets) {
        both->close(true);
        co_return;
    }
    asio::co_spawn(both->inner.get_executor(), close_later(both, linger), asio::detached);
    co_await both->outer.async_shutdown(asio::redirect_error(asio::use_awaitable, failed));
    both->close(false);
}

// Whether there may be one more from that address. Counts it while it lives.
struct handshake_place {
    tls_front& front;
    const std::string address;
    bool granted = false;

    handshake_place(tls_front& of, const std::string& from)
        : front(of), address(address_group(from)) {
        const size_t all = ++front.handshakes, his = ++front.handshakes_of[address];
        granted = all <= HANDSHAKES_MAX && his <= HANDSHAKES_OF_ADDRESS;
    }
    handshake_place(handshake_place&&) = delete;
    ~handshake_place() {
        --front.handshakes;
        const auto found = front.handshakes_of.find(address);
        if (found != front.handshakes_of.end() && --found->second == 0) {
            front.handshakes_of.erase(found);
        }
    }
};

awaitable<bool> handshake(tls_front& front, std::shared_ptr<bridge> both,
                          const std::string& address) {
    const handshake_place place(front, address);
    if (!place.granted) {
        co_return false;
    }
    asio::steady_timer timer(both->inner.get_executor(), HANDSHAKE_TIME);
    timer.async_wait([both](const asio::error_code& cancelled) {
        if (!cancelled) {
            both->close(true);
        }
    });
    asio::error_code failed;
    co_await both->outer.async_handshake(asio::ssl::stream_base::server,
                                         asio::redirect_error(asio::use_awaitable, failed));
    timer.cancel();
    co_return !failed;
}

}  // namespace

bool tls_load(tls_front& front, const std::string& certificate, const std::string& key,
              std::string& error) {
    front.files = {certificate, key, time_of(certificate), time_of(key)};
    try {
        const auto context = std::make_shared<asio::ssl::context>(asio::ssl::context::tls_server);
        context->set_options(asio::ssl::context::default_workarounds | SSL_OP_NO_RENEGOTIATION |
                             asio::ssl::context::no_tlsv1 | asio::ssl::context::no_tlsv1_1);
        context->use_certificate_chain_file(certificate);
        context->use_private_key_file(key, asio::ssl::context::pem);
        SSL_CTX_set_alpn_select_cb(context->native_handle(), choose_protocol, nullptr);
        front.ends = end_of(*context);
        front.context = context;
        return true;
    } catch (const asio::system_error& failed) {
        error = certificate + ", " + key + ": " + failed.what();
        return false;
    }
}

void tls_look(tls_front& front) {
    const tls_files& files = front.files;
    if (front.context == nullptr || (files.certificate_time == time_of(files.certificate) &&
                                     files.key_time == time_of(files.key))) {
        return;
    }
    std::string error;
    const std::string certificate = files.certificate, key = files.key;
    if (tls_load(front, certificate, key, error)) {
        log_line(EVENT, "%s has been loaded anew", certificate.c_str());
    } else {
        log_line(PROBLEM, "the certificate stays as it was: %s", error.c_str());
    }
}

awaitable<void> tls_serve(tls_front& front, tcp::socket accepted, milliseconds linger,
                          tls_begin begin) {
    const auto executor = accepted.get_executor();
    asio::error_code gone;
    const tcp::endpoint peer = accepted.remote_endpoint(gone);
    const std::string address = peer.address().to_string();
    accepted.set_option(tcp::no_delay(true), gone);
    int pair[2] = {-1, -1};
    if (gone || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
        co_return;
    }
    tcp::socket plain(executor, tcp::v4(), pair[0]);
    const auto context = front.context;  // which lives as long as its connections
    const auto both = std::make_shared<bridge>(bridge{
        tls_stream(std::move(accepted), *context), tcp::socket(executor, tcp::v4(), pair[1]), {}});
    const bool shaken = co_await handshake(front, both, address);
    if (!shaken) {
        both->close(true);
        co_return;
    }
    both->link = begin(std::move(plain), address + ":" + std::to_string(peer.port()));
    asio::co_spawn(executor, carry_in(both), asio::detached);
    co_await carry_out(both, linger);
}
