// main.cpp - binds the four ports, runs until SIGINT or SIGTERM, and takes everything down in
// order.

#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "control.h"
#include "data.h"
#include "front_door.h"
#include "manager.h"

namespace {

constexpr std::chrono::seconds TICK{1};
constexpr std::chrono::seconds STOP_PATIENCE{3};
constexpr size_t COMMAND7_MAX = 127;        // a device stops at more
constexpr size_t LOGIN_PAYLOAD_MAX = 1007;  // and here as well
constexpr int PAIRS = 5;

struct listeners {
    tcp::acceptor manager, control, data, front;
};

tcp::acceptor listen_on(asio::io_context& io, const std::string& address, uint16_t port) {
    asio::error_code failed;
    const auto ip = asio::ip::make_address(address, failed);
    tcp::acceptor acceptor(io);
    const tcp::endpoint endpoint(ip, port);
    const auto step = [&failed](auto&& operation) {
        if (!failed) {
            operation();
        }
    };
    step([&] { acceptor.open(endpoint.protocol(), failed); });
    step([&] { acceptor.set_option(tcp::acceptor::reuse_address(true), failed); });
    step([&] { acceptor.bind(endpoint, failed); });
    step([&] { acceptor.listen(asio::socket_base::max_listen_connections, failed); });
    if (failed) {
        fprintf(stderr, "gwrelay: cannot listen on %s port %u: %s\n", address.c_str(), port,
                failed.message().c_str());
        exit(EXIT_FAILURE);
    }
    return acceptor;
}

// A device does not parse JSON: it searches the key, skips it and the one byte behind, and takes
// the text between the next two double quotes. So keys that mean the same value can share it, which
// is how ten pairs fit into a command 7.
std::string order_text_for(const std::string& host, const std::string& port) {
    return "host1host2host3host4host5 \"" + host + "\" port1port2port3port4port5 \"" + port + "\"";
}

std::string order_json_for(const std::string& host, const std::string& port) {
    std::string json;
    for (int i = 1; i <= PAIRS; ++i) {
        const std::string number = std::to_string(i);
        json += (json.empty() ? "" : ",") + ("\"host" + number) + "\":\"" + host + "\",\"port" +
                number + "\":\"" + port + "\"";
    }
    return "{" + json + "}";
}

void announce(relay& hub, const listeners& ports) {
    const std::string& host = hub.settings.announce;
    const std::string data_port = std::to_string(ports.data.local_endpoint().port());
    const std::string control_port = std::to_string(ports.control.local_endpoint().port());
    hub.manager_body = "{\"ret\":0,\"proxy\":\"" + host + ":" + control_port + "\"}";
    hub.order_json = order_json_for(host, data_port);
    hub.order_text = order_text_for(host, data_port);
    if (hub.order_text.size() > COMMAND7_MAX || hub.order_json.size() > LOGIN_PAYLOAD_MAX) {
        fprintf(stderr, "gwrelay: the address %s is too long for an order\n", host.c_str());
        exit(EXIT_FAILURE);
    }
}

awaitable<void> tick(relay& hub, asio::steady_timer& timer, const bool& stopping) {
    while (!stopping) {
        asio::error_code cancelled;
        timer.expires_after(TICK);
        co_await timer.async_wait(asio::redirect_error(asio::use_awaitable, cancelled));
        std::erase_if(hub.connections, [](const auto& link) { return link.expired(); });
        const auto now = steady::now();
        const auto links = hub.connections;
        for (const auto& weak : links) {
            if (const auto link = weak.lock()) {
                link->tick(now);
            }
        }
    }
}

void stop(relay& hub, listeners& ports) {
    asio::error_code ignored;
    for (tcp::acceptor* acceptor : {&ports.manager, &ports.control, &ports.data, &ports.front}) {
        acceptor->close(ignored);
    }
    const auto links = hub.connections;
    for (const auto& weak : links) {
        if (const auto link = weak.lock()) {
            link->close();
        }
    }
}

void run(const options& settings) {
    asio::io_context io(1);
    relay hub{settings, {}, {}, {}, {}, {}};
    listeners ports{listen_on(io, settings.listen, settings.manager_port),
                    listen_on(io, settings.listen, settings.control_port),
                    listen_on(io, settings.listen, settings.data_port),
                    listen_on(io, settings.listen, settings.front_port)};
    announce(hub, ports);
    using asio::co_spawn, asio::detached;
    co_spawn(io, connection_accept_loop(hub, ports.manager, manager_serve, manager_ended),
             detached);
    co_spawn(io, connection_accept_loop(hub, ports.control, control_serve, control_ended),
             detached);
    co_spawn(io, connection_accept_loop(hub, ports.data, data_serve, data_ended), detached);
    co_spawn(io, connection_accept_loop(hub, ports.front, front_door_serve, front_door_ended),
             detached);
    bool stopping = false;
    asio::steady_timer timer(io);
    co_spawn(io, tick(hub, timer, stopping), detached);
    asio::signal_set signals(io, SIGINT, SIGTERM);
    signals.async_wait([&](asio::error_code, int number) {
        log_event("signal %d, stopping", number);
        stopping = true;
        timer.cancel();
        stop(hub, ports);
        io.stop();  // the wait below goes on with what is left to do
    });
    printf("ready manager=%u control=%u data=%u front=%u\n", ports.manager.local_endpoint().port(),
           ports.control.local_endpoint().port(), ports.data.local_endpoint().port(),
           ports.front.local_endpoint().port());
    fflush(stdout);
    log_event("front page: http://%s:%u/", settings.listen.c_str(),
              ports.front.local_endpoint().port());
    io.run();
    io.restart();
    io.run_for(STOP_PATIENCE);
    if (!io.stopped()) {  // never seen; but asked to end, the relay ends
        log_problem("connections are left at the end");
        std::quick_exit(EXIT_SUCCESS);
    }
}

}  // namespace

int main(int argc, char** argv) {
    options settings;
    if (const auto status = options_parse(argc, argv, settings)) {
        return *status;
    }
    log_set_level(settings.level);
    signal(SIGPIPE, SIG_IGN);
    run(settings);
    return EXIT_SUCCESS;
}
