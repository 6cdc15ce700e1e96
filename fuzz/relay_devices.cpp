// relay_devices - gwrelay's whole conversation with boxes and users: logins, what a box says about
// itself, streams, and the page that shows all of it.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "boxes/data.h"
#include "boxes/devices.h"
#include "page/files.h"
#include "page/metrics.h"
#include "page/status.h"
#include "support/process.h"
#include "users/admission.h"

const std::vector<page_file> PAGE_FILES;
// Of the options' sources, which read what their owner says.
std::optional<report_times> report_times_parse(std::string_view, std::string_view) {
    return report_times{60, 3600};
}

extern "C" [[gnu::format(printf, 2, 3)]] void __wrap__Z8log_line9log_levelPKcz(log_level,
                                                                               const char*, ...);
// Every line is formatted, for what it reads; nobody reads it. It must stay one line.
extern "C" void __wrap__Z8log_line9log_levelPKcz(log_level, const char* format, ...) {
    char line[4096];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    must(!http_has_control(line));
}

namespace {

struct relay_process {
    options settings;
    asio::io_context io{1};
    relay hub{settings, {1 << 20, 1 << 20, "/dev/null"}, {}, {}, {}, {}, {}, {}};

    explicit relay_process(uint8_t mode) {
        settings.command7 = mode % 2 == 1;
        settings.dead_port_guard = mode / 2 % 2 == 1;
        settings.reuse = mode / 4 % 2 == 1;
        if (mode / 8 % 2 == 1) {
            settings.times = report_times{60, 3600};
        }
    }
};

// Who speaks to the relay, on one connection after the other.
struct peer {
    relay_process& process;
    enum kind : uint8_t { CONTROL, DATA, USER, ADMIN, MANAGER } is;
    int fd = -1;
    std::weak_ptr<connection> link;

    void connects() {
        leaves();
        switch (is) {
            case CONTROL: return connects_to(control_serve);
            case DATA: return connects_to(data_serve);
            case USER: return connects_to(admission_serve);
            case ADMIN: return connects_to(admission_admin_serve);
            case MANAGER: return connects_to(manager_serve);
        }
    }
    void leaves() {
        if (fd != -1) {
            close(std::exchange(fd, -1));
        }
    }
    bool hears() {
        char bytes[65536];
        const ssize_t got = fd == -1 ? 0 : recv(fd, bytes, sizeof bytes, MSG_DONTWAIT);
        return got > 0;
    }

   private:
    template <typename Link>
    void connects_to(awaitable<void> (*serve)(relay&, std::shared_ptr<Link>)) {
        int both[2] = {-1, -1};
        must(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, both) == 0);
        fd = both[0];
        const auto made = std::make_shared<Link>(tcp::socket(process.io, tcp::v4(), both[1]));
        link = made;
        made->patience = process.hub.settings.stall_timeout;
        asio::co_spawn(process.io, connection_pump(made), asio::detached);
        asio::co_spawn(process.io, serve(process.hub, made),
                       [made](const std::exception_ptr& failure) {
                           must(failure == nullptr);
                           made->ended();
                           made->close();
                       });
    }
};

struct world {
    relay_process process;
    std::vector<peer> peers;

    explicit world(uint8_t mode) : process(mode) {
        for (const auto each : {peer::CONTROL, peer::CONTROL, peer::DATA, peer::DATA, peer::USER,
                                peer::USER, peer::ADMIN, peer::MANAGER}) {
            peers.push_back({.process = process, .is = each, .fd = -1, .link = {}});
        }
    }
    // Until nobody has anything to do.
    void goes_on() {
        bool more = true;
        while (more) {
            process.io.restart();
            more = process.io.poll() > 0;
            for (peer& each : peers) {
                more = each.hears() || more;
            }
        }
    }
    // Each turn is somebody's: who, and how much he says. Above 127 he connects anew.
    void plays(input_text turns, size_t piece) {
        while (!turns.empty()) {
            const uint8_t who = turns.byte();
            const size_t size = turns.byte() * size_t{256} + turns.byte();
            peer& speaker = peers[who % peers.size()];
            if (speaker.fd == -1 || who > 127) {
                speaker.connects();
                goes_on();
            }
            std::string_view words = turns.take(size);
            while (!words.empty()) {
                const std::string_view now = words.substr(0, piece);
                send(speaker.fd, now.data(), now.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
                words.remove_prefix(now.size());
                goes_on();
            }
        }
    }
    void ends() {
        for (peer& each : peers) {
            if (const auto link = each.link.lock()) {
                link->close();
            }
            each.leaves();
        }
        goes_on();
        must(process.io.stopped());  // nobody waits for anybody who is gone
        must(process.hub.admitted.users == 0 && process.hub.pool.used == 0);
        for (const auto& [id, owner] : process.hub.devices) {
            must(owner->away() && owner->waiting == 0);
        }
    }
};

void must_be_json(std::string_view text) {
    must(json::accept(text) &&
         std::ranges::all_of(text, [](char c) { return c >= ' ' && c <= '~'; }));
}

// What the relay knows of its devices, but for times.
std::string known(const relay& hub) {
    std::string all;
    for (const auto& [id, owner] : hub.devices) {
        must(!id.empty() && id.size() < 48 && owner->ports.size() <= 16 && owner->id == id);
        must(!http_has_control(owner->name) && owner->data.size() < 3);
        all += id + (owner->control ? " here " : " away ") +
               std::to_string(owner->dlna_status.value_or(0)) + std::to_string(owner->data.size());
        for (const auto& [key, value] : owner->info) {
            all.append(key).append(1, '=').append(value).append(1, '\n');
        }
        for (const auto& [key, port] : owner->ports) {
            all.append(key).append(1, '=').append(std::to_string(port));
        }
    }
    return all;
}

std::string outcome(uint8_t mode, const input_text& turns, size_t piece) {
    world at(mode);
    at.plays(turns, piece);
    relay_look(at.process.hub, steady::now());
    std::string shown = status_json(at.process.hub);
    shown.pop_back();  // the end of its line
    must_be_json(shown);
    metrics_text(at.process.hub);
    const std::string all = known(at.process.hub);
    at.ends();
    return all;
}

}  // namespace

// The first byte says how the relay is set, the second in what pieces its peers' words come.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    input_text input(bytes, size);
    const uint8_t mode = input.byte();
    const size_t piece = size_t{input.byte()} + 1;
    must(outcome(mode, input, piece) == outcome(mode, input, SIZE_MAX));
    return 0;
}
