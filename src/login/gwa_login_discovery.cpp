#include "login/gwa_login_discovery.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "login/gwa_login.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_scoped_fd.h"
#include "runtime/gwa_types.h"
#include "runtime/gwa_util_net.h"
#include "runtime/gwa_util_socket.h"
#include "runtime/gwa_util_socket_recv.h"

namespace {

constexpr size_t MESSAGE_SIZE = 512;  // a request or a reply, terminator included
constexpr size_t REPLY_MIN = 18;      // shorter than any status line with a body behind it
constexpr int WAIT_S = 10;            // for the connect, and again for the reply
constexpr long REPLY_PORT_MAX = 65534;
constexpr char HEAD_END[] = "\r\n\r\n";
constexpr std::string_view GOOD_BODY = "{\"ret\":0";
enum server_slot : int { SLOT_MAIN, SLOT_BACKUP_DOMAIN, SLOT_BACKUP_ADDRESS };

}  // namespace

// Dotted text of an address in host order; the buffer makes it safe from any thread.
static const char* dotted(uint32_t address, char (&text)[INET_ADDRSTRLEN]) {
    const in_addr wire{htonl(address)};
    return inet_ntop(AF_INET, &wire, text, sizeof text);
}

static bool server_resolve(const char* name, uint32_t* server) {
    uint32_t address = 0;
    char text[INET_ADDRSTRLEN] = "";
    if (gwa_getaddrinfo(name, &address, text, sizeof text) != GWA_OK) {
        return false;
    }
    GWA_LOG(INFO, "resovle the main domain %s to %s", name, text);
    *server = ntohl(address);
    return true;
}

// Names are resolved anew each time, since a box may run longer than an address stays valid. What
// -R gave takes no part: oddity 5.
static void servers_fill() {
    uint32_t(&servers)[GWA_SERVER_COUNT] = gwa_login.servers;
    servers[SLOT_MAIN] = 0;
    if (gwa_login.server_name[0] != '\0' &&
        !server_resolve(gwa_login.server_name, &servers[SLOT_MAIN])) {
        GWA_LOG(ERROR, "Can not resolve the domain %s", gwa_login.server_name);
    }
    if (!gwa_process_running()) {
        return;  // the end has waited for one name already; a second may take as long
    }
    if (!server_resolve(gwa_login.backup_domain, &servers[SLOT_BACKUP_DOMAIN])) {
        GWA_LOG(ERROR, "Can not resolve backup domain %s", gwa_login.backup_domain);
        servers[SLOT_BACKUP_DOMAIN] = 0;
    }
    servers[SLOT_BACKUP_ADDRESS] = gwa_login.backup_address;
    for (int i = 0; i < GWA_SERVER_COUNT; ++i) {
        char text[INET_ADDRSTRLEN];
        GWA_LOG(INFO, "server index %d : 0x%08x (%s)", i, servers[i], dotted(servers[i], text));
    }
}

// A dotted address or a name, to host order.
static bool control_address(const char* host, uint32_t* address) {
    uint32_t wire = 0;
    if (inet_pton(AF_INET, host, &wire) != 1) {
        if (gwa_getaddrinfo(host, &wire, nullptr, 0) != GWA_OK) {
            return false;
        }
        GWA_LOG(RESULT, "resolv the domain %s to address 0x%08x", host, ntohl(wire));
    }
    *address = ntohl(wire);
    return true;
}

// The digits from `text` up to a double quote; 0 when that is no port.
static uint16_t control_port(const char* text) {
    if (text[0] == '"' || strchr(text, '"') == nullptr) {
        return 0;
    }
    const long port = strtol(text, nullptr, 10);
    return port < 1 || port > REPLY_PORT_MAX ? 0 : static_cast<uint16_t>(port);
}

// It looks for characters, not for key names: whatever key carries the address is accepted (oddity
// 8).
int gwa_cntrl_ip_parse(char* reply, size_t length, uint32_t* address, uint16_t* port) {
    if (length < REPLY_MIN) {
        return GWA_FAILED;
    }
    const char* head_end = strstr(reply, HEAD_END);
    if (head_end == nullptr) {
        GWA_LOG(ERROR, "response format error, [%s]", reply);
        return GWA_FAILED;
    }
    const char* body = head_end + strlen(HEAD_END);
    if (!std::string_view(body).starts_with(GOOD_BODY)) {
        return GWA_FAILED;
    }
    char* colon = strchr(reply + (body - reply) + GOOD_BODY.size(), ':');
    // The host stands behind the colon and a quote; a colon as the last byte has neither.
    char* host = colon == nullptr || colon[1] == '\0' ? nullptr : colon + 2;
    char* host_end = host == nullptr ? nullptr : strchr(host, ':');
    if (host_end == nullptr) {
        GWA_LOG(ERROR, "response format error, [%s]", reply);
        return GWA_FAILED;
    }
    *host_end = '\0';
    GWA_LOG(RESULT, "control IP/domain is %s", host);
    uint32_t found = 0;
    const bool known = control_address(host, &found);
    *host_end = ':';  // whole again: an error below logs all of it
    if (!known) {
        GWA_LOG(ERROR, "response address/domain error, [%s]", reply);
        return GWA_FAILED;
    }
    const uint16_t found_port = control_port(host_end + 1);
    if (found_port == 0) {
        GWA_LOG(ERROR, "response port format error, [%s]", reply);
        return GWA_FAILED;
    }
    *address = found;
    *port = found_port;
    GWA_LOG(RESULT, "Server say control IP = 0x%08x, Port = %d", found, found_port);
    return GWA_OK;
}

// Sends the request and takes what one receive gives: a reply in two pieces is a failed server. The
// count, or -1 after the reason has been logged.
static int reply_get(uint32_t server, char (&reply)[MESSAGE_SIZE]) {
    char text[INET_ADDRSTRLEN];
    char request[MESSAGE_SIZE];
    const int formatted =
        snprintf(request, sizeof request,
                 "GET /addrmgr/device_get_proxy?devid=%s HTTP/1.1\r\nHost: %s:%d\r\n"
                 "Connection: Close\r\n\r\n",
                 gwa_device_id, dotted(server, text), gwa_login.server_port);
    const size_t length = std::min(static_cast<size_t>(formatted), sizeof request - 1);

    // Exception 62: non-blocking from the start, so that the connect keeps its limit.
    const scoped_fd fd(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (fd.fd == -1) {
        GWA_LOG(ERROR, "socket failed, %s", strerror(errno));
        return GWA_FAILED;
    }
    const sockaddr_in address =
        gwa_socket_address(server, static_cast<uint16_t>(gwa_login.server_port));
    GWA_LOG(DEBUG, "connect to proxy server, 0x%08x", server);
    if (gwa_connect_timeout(fd.fd, reinterpret_cast<const sockaddr*>(&address), sizeof address,
                            WAIT_S) != GWA_OK) {
        GWA_LOG(ERROR, "connect to server failed, 0x%08x, %s", server, strerror(errno));
        return GWA_FAILED;
    }
    GWA_LOG(DEBUG, "HTTP req [%s]", request);
    if (send(fd.fd, request, length, MSG_NOSIGNAL) == -1) {
        GWA_LOG(ERROR, "send request to server failed, %s", strerror(errno));
        return GWA_FAILED;
    }
    const int received = gwa_recv_timeout(fd.fd, reply, sizeof reply - 1, WAIT_S);
    if (received == GWA_FAILED) {
        GWA_LOG(ERROR, "recv failed, %s", strerror(errno));
    }
    return received;
}

static int gwa_cntrl_ip_try_get(int index, uint32_t* address, uint16_t* port) {
    *address = 0;
    *port = 0;
    GWA_LOG(INFO, "try server index %d", index);
    char reply[MESSAGE_SIZE] = {};  // stays terminated, whatever arrives
    const int received = reply_get(gwa_login.servers[index], reply);
    return received < 0 ? GWA_FAILED
                        : gwa_cntrl_ip_parse(reply, static_cast<size_t>(received), address, port);
}

int gwa_cntrl_ip_get(uint32_t* address, uint16_t* port) {
    *address = 0;
    *port = 0;
    servers_fill();
    for (int i = 0; i < GWA_SERVER_COUNT && gwa_process_running(); ++i) {
        if (gwa_login.servers[i] != 0 && gwa_cntrl_ip_try_get(i, address, port) == GWA_OK) {
            break;
        }
    }
    return GWA_OK;  // without a server the outputs are 0, which says so
}
