// main.cpp - binds the ports and runs until a signal ends it.

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "boxes/devices.h"
#include "run/lifecycle.h"
#include "run/service.h"
#include "users/access_log.h"
#include "users/admission.h"
#include "users/fairness.h"
#include "users/kept.h"

namespace {

constexpr milliseconds TICK{1000};
constexpr milliseconds ACCEPT_PAUSE{200};

struct listeners {
    tcp::acceptor manager, control, data, front;
    std::optional<tcp::acceptor> admin;
};

uint16_t port_of(const tcp::acceptor& acceptor) { return acceptor.local_endpoint().port(); }

// The socket that the service manager has made for this, or one of our own.
tcp::acceptor listen_on(asio::io_context& io, const char* name, const std::string& address,
                        uint16_t port) {
    try {
        if (const int fd = service_socket(name); fd >= 0) {
            sockaddr_storage bound{};
            socklen_t size = sizeof bound;
            getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &size);
            return {io, bound.ss_family == AF_INET6 ? tcp::v6() : tcp::v4(), fd};
        }
        return {io, tcp::endpoint(asio::ip::make_address(address), port)};
    } catch (const std::exception& failed) {
        fprintf(stderr, "gwrelay: cannot listen on %s port %u: %s\n", address.c_str(), port,
                failed.what());
        exit(EXIT_FAILURE);
    }
}

// Whoever reaches the users' address would reach every box.
bool users_fit(const options& set, const asio::ip::address& address) {
    if (address_is_loopback(address) || !set.users_file.empty() || set.open_users) {
        return true;
    }
    fprintf(
        stderr,
        "gwrelay: at %s everybody could reach every device, from anywhere: give a --users-file, "
        "or --open-users if that is meant\n",
        address.to_string().c_str());
    return false;
}

// Whoever reaches the devices' address could take any device's place.
bool devices_fit(const options& set, const asio::ip::address& address) {
    if (address_is_loopback(address) || !set.boxes_file.empty() || set.open) {
        return true;
    }
    fprintf(stderr,
            "gwrelay: at %s anything could log in as any device: give a --boxes-file, or --open if "
            "that is meant\n",
            address.to_string().c_str());
    return false;
}

// For --check-config, which binds nothing.
bool addresses_fit(const options& set) {
    for (const std::string* each : {&set.listen_devices, &set.listen_users, &set.listen_admin}) {
        asio::error_code failed;
        const auto address = asio::ip::make_address(*each, failed);
        if (failed && !each->empty()) {
            fprintf(stderr, "gwrelay: cannot listen on %s: it is no address\n", each->c_str());
            return false;
        }
        const bool devices = each == &set.listen_devices;
        if (!failed && !(devices ? devices_fit(set, address) : users_fit(set, address))) {
            return false;
        }
    }
    return true;
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
    hub.front_port = port_of(ports.front);
    // A device does not parse JSON: it searches the key, skips it and the one byte behind, and
    // takes the text between the next two double quotes. So keys that mean the same value can share
    // it, which is how ten pairs fit into a command 7.
    hub.order_text =
        "host1host2host3host4host5 \"" + host + "\" port1port2port3port4port5 \"" + port + "\"";
}

// Accepts for ever, and hands over to `begin`. Out of descriptors, it waits instead of
// spinning.
template <typename Begin>
awaitable<void> accept_loop(tcp::acceptor& acceptor, Begin begin) {
    asio::steady_timer pause(acceptor.get_executor());
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
        begin(std::move(socket));
    }
}

template <typename Link>
using link_story = awaitable<void> (*)(relay&, std::shared_ptr<Link>);

// From now on it lives by itself.
template <typename Link>
void start(relay& hub, const std::shared_ptr<Link>& link, link_story<Link> serve) {
    const auto executor = link->socket.get_executor();
    hub.connections.push_back(link);
    link->patience = hub.settings.stall_timeout;
    link->expect_within(hub.settings.login_timeout, "said nothing useful in time");
    asio::co_spawn(executor, connection_pump(link), asio::detached);
    asio::co_spawn(executor, serve(hub, link), [link](const std::exception_ptr&) {
        link->ended();
        link->close();
    });
}

template <typename Link>
auto starter(relay& hub, link_story<Link> serve) {
    return [&hub, serve](tcp::socket socket) {
        start(hub, std::make_shared<Link>(std::move(socket)), serve);
    };
}

// The same for users, who may come by TLS.
auto user_starter(relay& hub, link_story<user_link> serve) {
    return [&hub, serve](tcp::socket socket) {
        asio::error_code gone;
        const bool on_loopback = address_is_loopback(socket.local_endpoint(gone).address());
        if (hub.tls.context == nullptr) {
            const auto user = std::make_shared<user_link>(std::move(socket));
            user->on_loopback = on_loopback;
            start(hub, user, serve);
            return;
        }
        const auto begin = [&hub, serve, on_loopback](tcp::socket plain, const std::string& peer) {
            const auto user = std::make_shared<user_link>(std::move(plain));
            user->name = peer;
            user->scheme = "https";
            user->on_loopback = on_loopback;
            start(hub, user, serve);
            return std::shared_ptr<connection>(user);
        };
        const auto executor = socket.get_executor();
        asio::co_spawn(executor,
                       tls_serve(hub.tls, std::move(socket), hub.settings.linger_timeout, begin),
                       asio::detached);
    };
}

// Calls `look` again and again, for ever.
template <typename Interval, typename Look>
awaitable<void> repeat(Interval interval, Look look) {
    asio::steady_timer timer(co_await asio::this_coro::executor);
    for (;;) {
        timer.expires_after(interval());
        co_await timer.async_wait(asio::use_awaitable);
        look();
    }
}

void tick(relay& hub) {
    tls_look(hub.tls);
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

void tell_ready(const options& set, const listeners& ports) {
    printf("ready manager=%u control=%u data=%u front=%u", port_of(ports.manager),
           port_of(ports.control), port_of(ports.data), port_of(ports.front));
    if (ports.admin) {
        printf(" admin=%u", port_of(*ports.admin));
    }
    puts("");
    fflush(stdout);
    const auto& [address, page] = ports.admin ? std::tie(set.listen_admin, *ports.admin)
                                              : std::tie(set.listen_users, ports.front);
    log_line(EVENT, "front page: http%s://%s:%u/", set.tls_certificate.empty() ? "" : "s",
             address.c_str(), port_of(page));
}

void run(options& settings, access_rules rules, tls_front tls, int argc, const char* const* argv) {
    asio::io_context io(1);
    relay hub{settings, {settings.user_buffer, settings.buffers, settings.buffer_folder},
              {},       {},
              {},       {},
              {},       {}};
    hub.entry.rules = std::move(rules);
    hub.tls = std::move(tls);
    listeners ports{listen_on(io, "manager", settings.listen_devices, settings.manager_port),
                    listen_on(io, "control", settings.listen_devices, settings.control_port),
                    listen_on(io, "data", settings.listen_devices, settings.data_port),
                    listen_on(io, "front", settings.listen_users, settings.front_port),
                    std::nullopt};
    hub.own_door = !settings.listen_admin.empty() || service_socket("admin") >= 0;
    if (hub.own_door) {
        ports.admin = listen_on(io, "admin", settings.listen_admin, settings.admin_port);
    }
    if (!devices_fit(settings, ports.control.local_endpoint().address()) ||
        !users_fit(settings, ports.front.local_endpoint().address()) ||
        (ports.admin && !users_fit(settings, ports.admin->local_endpoint().address()))) {
        exit(EXIT_FAILURE);
    }
    announce(hub, ports);
    using asio::co_spawn, asio::detached;
    co_spawn(io, accept_loop(ports.manager, starter<connection>(hub, manager_serve)), detached);
    co_spawn(io, accept_loop(ports.control, starter<control_link>(hub, control_serve)), detached);
    co_spawn(io, accept_loop(ports.data, starter<data_link>(hub, data_serve)), detached);
    co_spawn(io, accept_loop(ports.front, user_starter(hub, admission_serve)), detached);
    if (ports.admin) {
        co_spawn(io, accept_loop(*ports.admin, user_starter(hub, admission_admin_serve)), detached);
    }
    const auto tick_interval = [&settings] {
        return interval_for({settings.login_timeout, settings.silence_timeout,
                             settings.gone_timeout, settings.stall_timeout, settings.answer_timeout,
                             settings.linger_timeout, settings.idle_timeout, settings.reuse_timeout,
                             settings.repeat_timeout});
    };
    const auto fairness_interval = [&settings] {
        return interval_for({settings.rate_time, settings.slow_timeout, settings.stuck_timeout});
    };
    co_spawn(io, repeat(tick_interval, [&hub] { tick(hub); }), detached);
    co_spawn(io, repeat(fairness_interval, [&hub] { fairness_look(hub, steady::now()); }),
             detached);
    co_spawn(io, repeat([] { return LOOK_INTERVAL; }, [&hub] { relay_look(hub, steady::now()); }),
             detached);
    co_spawn(io, lifecycle_serve(hub, settings, argc, argv), detached);
    tell_ready(settings, ports);
    service_notify("READY=1");
    io.run();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && argv[1] == std::string_view("id")) {
        printf("%s\n", box_id_make().c_str());
        return EXIT_SUCCESS;
    }
    std::string error;
    auto line = options_parse(argc, argv, error);
    if (!line) {
        fprintf(stderr, "gwrelay: %s\n", error.c_str());
        return EXIT_FAILURE;
    }
    options& settings = line->set;
    auto rules = rules_read(settings, error);
    if (!rules) {
        fprintf(stderr, "gwrelay: %s\n", error.c_str());
        return EXIT_FAILURE;
    }
    tls_front tls;
    if (!settings.tls_certificate.empty() &&
        !tls_load(tls, settings.tls_certificate, settings.tls_key, error)) {
        fprintf(stderr, "gwrelay: %s\n", error.c_str());
        return EXIT_FAILURE;
    }
    if (line->check_only) {
        const bool fit = addresses_fit(settings);
        return fit ? EXIT_SUCCESS : EXIT_FAILURE;
    }
    log_set_level(settings.level);
    admission_fit(settings);
    signal(SIGPIPE, SIG_IGN);
    if (!access_log_open(settings.access_log)) {
        return EXIT_FAILURE;
    }
    run(settings, std::move(*rules), std::move(tls), argc, argv);
    return EXIT_SUCCESS;
}
