// main.cpp - binds the four ports and runs until SIGINT or SIGTERM.

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "boxes/devices.h"
#include "users/admission.h"
#include "users/fairness.h"
#include "users/kept.h"

namespace {

constexpr milliseconds TICK{1000};
constexpr milliseconds ACCEPT_PAUSE{200};

struct listeners {
    tcp::acceptor manager, control, data, front;
};

uint16_t port_of(const tcp::acceptor& acceptor) { return acceptor.local_endpoint().port(); }

tcp::acceptor listen_on(asio::io_context& io, const std::string& address, uint16_t port) {
    try {
        return {io, tcp::endpoint(asio::ip::make_address(address), port)};
    } catch (const std::exception& failed) {
        fprintf(stderr, "gwrelay: cannot listen on %s port %u: %s\n", address.c_str(), port,
                failed.what());
        exit(EXIT_FAILURE);
    }
}

void announce(relay& hub, const listeners& ports) {
    const std::string& host = hub.settings.announce;
    const std::string port = std::to_string(port_of(ports.data));
    hub.manager_body =
        "{\"ret\":0,\"proxy\":\"" + host + ":" + std::to_string(port_of(ports.control)) + "\"}";
    for (const char number : {'1', '2', '3', '4', '5'}) {
        hub.order_json += hub.order_json.empty() ? "{" : ",";
        hub.order_json += std::string("\"host") + number + "\":\"" + host + "\",\"port" + number +
                          "\":\"" + port + "\"";
    }
    hub.order_json += "}";
    hub.manager_port = port_of(ports.manager);
    // A device does not parse JSON: it searches the key, skips it and the one byte behind, and
    // takes the text between the next two double quotes. So keys that mean the same value can share
    // it, which is how ten pairs fit into a command 7.
    hub.order_text =
        "host1host2host3host4host5 \"" + host + "\" port1port2port3port4port5 \"" + port + "\"";
}

// Accepts for ever; `serve` is a connection's story. Out of descriptors, it waits instead of
// spinning.
template <typename Link>
awaitable<void> accept_loop(relay& hub, tcp::acceptor& acceptor,
                            awaitable<void> (*serve)(relay&, std::shared_ptr<Link>)) {
    const auto executor = acceptor.get_executor();
    asio::steady_timer pause(executor);
    for (;;) {
        asio::error_code failed;
        tcp::socket socket =
            co_await acceptor.async_accept(asio::redirect_error(asio::use_awaitable, failed));
        if (failed) {
            log_line(PROBLEM, "accept failed: %s", failed.message().c_str());
            pause.expires_after(ACCEPT_PAUSE);
            co_await pause.async_wait(asio::use_awaitable);
            continue;
        }
        const auto link = std::make_shared<Link>(std::move(socket));
        hub.connections.push_back(link);
        link->patience = hub.settings.stall_timeout;
        link->expect_within(hub.settings.login_timeout, "said nothing useful in time");
        asio::co_spawn(executor, connection_pump(link), asio::detached);
        asio::co_spawn(executor, serve(hub, link), [link](const std::exception_ptr&) {
            link->ended();
            link->close();
        });
    }
}

// Calls `look` again and again, for ever.
template <typename Look>
awaitable<void> repeat(milliseconds interval, Look look) {
    asio::steady_timer timer(co_await asio::this_coro::executor);
    for (;;) {
        timer.expires_after(interval);
        co_await timer.async_wait(asio::use_awaitable);
        look();
    }
}

void tick(relay& hub) {
    std::erase_if(hub.connections, [](const auto& link) { return link.expired(); });
    for (const auto& [id, owner] : hub.devices) {
        for (const auto& link : owner->data) {
            kept_expire(*link, steady::now());
        }
    }
    for (const auto& weak : hub.connections) {
        if (const auto link = weak.lock()) {
            link->tick(steady::now());
        }
    }
}

// Often enough for each of these times to be kept to a quarter.
milliseconds interval_for(std::initializer_list<milliseconds> times) {
    return std::min(TICK, std::min(times) / 4);
}

void run(const options& settings) {
    asio::io_context io(1);
    relay hub{settings, {settings.user_buffer, settings.buffers, settings.buffer_folder},
              {},       {},
              {},       {},
              {},       {}};
    listeners ports{listen_on(io, settings.listen, settings.manager_port),
                    listen_on(io, settings.listen, settings.control_port),
                    listen_on(io, settings.listen, settings.data_port),
                    listen_on(io, settings.listen, settings.front_port)};
    announce(hub, ports);
    using asio::co_spawn, asio::detached;
    co_spawn(io, accept_loop(hub, ports.manager, manager_serve), detached);
    co_spawn(io, accept_loop(hub, ports.control, control_serve), detached);
    co_spawn(io, accept_loop(hub, ports.data, data_serve), detached);
    co_spawn(io, accept_loop(hub, ports.front, admission_serve), detached);
    co_spawn(io,
             repeat(interval_for(
                        {settings.login_timeout, settings.silence_timeout, settings.gone_timeout,
                         settings.stall_timeout, settings.answer_timeout, settings.linger_timeout,
                         settings.idle_timeout, settings.reuse_timeout, settings.repeat_timeout}),
                    [&hub] { tick(hub); }),
             detached);
    co_spawn(
        io,
        repeat(interval_for({settings.rate_time, settings.slow_timeout, settings.stuck_timeout}),
               [&hub] { fairness_look(hub, steady::now()); }),
        detached);
    co_spawn(io, repeat(LOOK_INTERVAL, [&hub] { relay_look(hub, steady::now()); }), detached);
    asio::signal_set signals(io, SIGINT, SIGTERM);
    signals.async_wait([](asio::error_code, int number) {
        log_line(EVENT, "signal %d, stopping", number);
        exit(EXIT_SUCCESS);  // the kernel closes every connection as close() would
    });
    printf("ready manager=%u control=%u data=%u front=%u\n", port_of(ports.manager),
           port_of(ports.control), port_of(ports.data), port_of(ports.front));
    fflush(stdout);
    log_line(EVENT, "front page: http://%s:%u/", settings.listen.c_str(), port_of(ports.front));
    io.run();
}

}  // namespace

int main(int argc, char** argv) {
    options settings;
    if (!options_parse(argc, argv, settings)) {
        return EXIT_FAILURE;
    }
    log_set_level(settings.level);
    admission_fit(settings);
    signal(SIGPIPE, SIG_IGN);
    run(settings);
    return EXIT_SUCCESS;
}
