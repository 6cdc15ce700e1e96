#include "run/lifecycle.h"

#include <csignal>

#include "boxes/logins.h"
#include "run/service.h"
#include "users/access_log.h"
#include "users/admission.h"

namespace {

constexpr milliseconds DRAIN_LOOK{50};

[[noreturn]] void end(int signal) {
    log_line(EVENT, "signal %d, stopping", signal);
    service_notify("STOPPING=1");
    exit(EXIT_SUCCESS);  // the kernel closes every connection as close() would
}

void reload(relay& hub, options& live, int argc, const char* const* argv) {
    service_notify_reloading();
    std::string error;
    const auto line = options_parse(argc, argv, error);
    options fresh = live;
    const auto later = line ? options_reload(fresh, line->set) : std::vector<std::string>();
    auto rules = line ? rules_read(fresh, error) : std::nullopt;
    if (!rules) {
        log_line(PROBLEM, "not reloaded: %s", error.c_str());
    } else {
        for (const std::string& name : later) {
            log_line(PROBLEM, "--%s changes with the next start only", name.c_str());
        }
        live = std::move(fresh);
        hub.entry.rules = std::move(*rules);
        devices_recheck(hub);
        log_set_level(live.level);
        admission_fit(live);
        hub.pool.total_max = live.buffers;
        hub.pool.folder = live.buffer_folder;
        log_line(EVENT, "reloaded");
    }
    access_log_open(live.access_log);
    service_notify("READY=1");
}

// Those who are between two requests leave at once, the others after the one that is under way.
awaitable<void> drain(relay& hub, int signal) {
    asio::steady_timer timer(co_await asio::this_coro::executor);
    const auto until = steady::now() + hub.settings.drain;
    hub.draining = true;
    service_notify("STOPPING=1");
    log_line(EVENT, "signal %d, no new requests; %zu users may end theirs", signal,
             hub.admitted.users);
    while (hub.admitted.users > 0 && steady::now() < until) {
        for (const auto& weak : hub.connections) {
            if (const auto link = weak.lock()) {
                link->changed.notify();
            }
        }
        timer.expires_after(DRAIN_LOOK);
        co_await timer.async_wait(asio::use_awaitable);
    }
    log_line(EVENT, "drained, %zu users left", hub.admitted.users);
    end(signal);
}

}  // namespace

awaitable<void> lifecycle_serve(relay& hub, options& live, int argc, const char* const* argv) {
    const auto executor = co_await asio::this_coro::executor;
    asio::signal_set signals(executor, SIGINT, SIGTERM, SIGHUP);
    signals.add(SIGUSR1);
    for (;;) {
        const int number = co_await signals.async_wait(asio::use_awaitable);
        if (number == SIGHUP) {
            reload(hub, live, argc, argv);
        } else if (number == SIGUSR1) {
            access_log_open(live.access_log);
        } else if (number == SIGINT || hub.draining) {
            end(number);
        } else {
            asio::co_spawn(executor, drain(hub, number), asio::detached);
        }
    }
}
