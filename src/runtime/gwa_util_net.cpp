#include "runtime/gwa_util_net.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "main/gwa_log.h"
#include "runtime/gwa_print.h"
#include "runtime/gwa_types.h"

int gwa_getaddrinfo(const char* host, uint32_t* address, char* text, size_t text_size) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE;
    addrinfo* found = nullptr;  // there is a list to free after success only
    const int failure = getaddrinfo(host, nullptr, &hints, &found);
    if (failure != 0) {
        if (failure == -1) {
            GWA_LOG(ERROR, "getaddrinfo failed %s", strerror(errno));
        }
        return failure;
    }
    sockaddr_in first{};
    memcpy(&first, found->ai_addr, sizeof first);
    freeaddrinfo(found);
    if (address != nullptr) {
        *address = first.sin_addr.s_addr;
    }
    if (text != nullptr &&
        inet_ntop(AF_INET, &first.sin_addr, text, static_cast<socklen_t>(text_size)) == nullptr) {
        GWA_LOG(DEBUG, "inet_ntop failed %s", strerror(errno));
        return GWA_FAILED;
    }
    return GWA_OK;
}

enum class interface_result : uint8_t { ANSWERED, NO_SOCKET, NO_ANSWER };  // errno says why

// Asks the kernel about an interface.
static interface_result interface_query(const char* name, unsigned long request, ifreq* answer) {
    text_copy(answer->ifr_name, name);
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd == -1) {
        return interface_result::NO_SOCKET;
    }
    const int result = ioctl(fd, request, answer);
    const int reason = errno;
    close(fd);
    errno = reason;
    return result == -1 ? interface_result::NO_ANSWER : interface_result::ANSWERED;
}

int gwa_interface_mac_get(const char* name, uint8_t (*mac)[6]) {
    if (name == nullptr || name[0] == '\0') {
        GWA_LOG(DEBUG, "ifname == NULL");
        return GWA_FAILED;
    }
    if (mac == nullptr) {
        GWA_LOG(DEBUG, "mac == NULL");
        return GWA_FAILED;
    }
    ifreq answer{};
    switch (interface_query(name, SIOCGIFHWADDR, &answer)) {
        case interface_result::ANSWERED: break;
        case interface_result::NO_SOCKET:
            GWA_LOG(DEBUG, "socket error %s", strerror(errno));
            return GWA_FAILED;
        case interface_result::NO_ANSWER:
            GWA_LOG(DEBUG, "ioctl SIOCGIFHWADDR error %s", strerror(errno));
            return GWA_FAILED;
    }
    memcpy(*mac, answer.ifr_hwaddr.sa_data, sizeof *mac);
    return GWA_OK;
}

int gwa_interface_addr_get(const char* name, uint8_t (*address)[4]) {
    if (name == nullptr || name[0] == '\0') {
        gwa_print("ifname == NULL\n");
        return GWA_FAILED;
    }
    if (address == nullptr) {
        gwa_print("addr == NULL\n");
        return GWA_FAILED;
    }
    ifreq answer{};
    switch (interface_query(name, SIOCGIFADDR, &answer)) {
        case interface_result::ANSWERED: break;
        case interface_result::NO_SOCKET:
            gwa_print("socket error %s\n", strerror(errno));
            return GWA_FAILED;
        case interface_result::NO_ANSWER:
            if (errno != EADDRNOTAVAIL) {
                gwa_print("ioctl SIOCGIFADDR error %s\n", strerror(errno));
                return GWA_FAILED;
            }
            gwa_print("interface %s not assign IP address\n", name);
            memset(*address, 0, sizeof *address);
            return GWA_OK;
    }
    sockaddr_in assigned{};
    memcpy(&assigned, &answer.ifr_addr, sizeof assigned);
    memcpy(*address, &assigned.sin_addr, sizeof *address);
    return GWA_OK;
}
