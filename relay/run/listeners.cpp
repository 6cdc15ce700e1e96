#include "run/listeners.h"

#include <cstdio>
#include <cstdlib>

#include "net/ranges.h"
#include "run/service.h"

namespace {

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

}  // namespace

bool listeners_fit(const options& set) {
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

listeners listeners_open(asio::io_context& io, const options& set) {
    listeners ports{listen_on(io, "manager", set.listen_devices, set.manager_port),
                    listen_on(io, "control", set.listen_devices, set.control_port),
                    listen_on(io, "data", set.listen_devices, set.data_port),
                    listen_on(io, "front", set.listen_users, set.front_port), std::nullopt};
    if (!set.listen_admin.empty() || service_socket("admin") >= 0) {
        ports.admin = listen_on(io, "admin", set.listen_admin, set.admin_port);
    }
    const auto fits = [&set](const tcp::acceptor& acceptor) {
        return users_fit(set, acceptor.local_endpoint().address());
    };
    if (!devices_fit(set, ports.control.local_endpoint().address()) || !fits(ports.front) ||
        (ports.admin && !fits(*ports.admin))) {
        exit(EXIT_FAILURE);
    }
    return ports;
}

void listeners_announce(relay& hub, const listeners& ports) {
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

void listeners_tell(const options& set, const listeners& ports) {
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
