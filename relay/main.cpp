// main.cpp - binds the ports and runs until a signal ends it.

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "boxes/data.h"
#include "boxes/devices.h"
#include "run/lifecycle.h"
#include "run/listeners.h"
#include "run/service.h"
#include "users/access_log.h"
#include "users/admission.h"
#include "users/fairness.h"
#include "users/kept.h"

namespace {

constexpr milliseconds TICK{1000};
constexpr milliseconds ACCEPT_PAUSE{200};

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

void run(options& settings, access_rules rules, tls_front tls, int argc, const char* const* argv) {
    asio::io_context io(1);
    relay hub{settings, {settings.user_buffer, settings.buffers, settings.buffer_folder},
              {},       {},
              {},       {},
              {},       {}};
    hub.entry.rules = std::move(rules);
    hub.tls = std::move(tls);
    listeners ports = listeners_open(io, settings);
    hub.own_door = ports.admin.has_value();
    listeners_announce(hub, ports);
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
    listeners_tell(settings, ports);
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
        return listeners_fit(settings) ? EXIT_SUCCESS : EXIT_FAILURE;
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
