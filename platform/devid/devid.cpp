#include "devid.h"

#include <net/if.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

// The first line of the machine id file, without its line end. False: no file, or nothing in it.
static bool machine_id_read(char* buffer, int size) {
    FILE* file = fopen("/etc/machine-id", "re");
    if (file == nullptr) {
        return false;
    }
    const bool read = fgets(buffer, size, file) != nullptr;
    fclose(file);
    if (!read) {
        return false;
    }
    buffer[strcspn(buffer, " \t\r\n")] = '\0';
    return buffer[0] != '\0';
}

static bool hardware_address_format(const ifreq& request, char* buffer, int size) {
    constexpr size_t ADDRESS_LENGTH = 6;
    uint8_t mac[ADDRESS_LENGTH];
    memcpy(mac, request.ifr_hwaddr.sa_data, sizeof mac);
    snprintf(buffer, static_cast<size_t>(size), "%02x%02x%02x%02x%02x%02x", mac[0], mac[1], mac[2],
             mac[3], mac[4], mac[5]);
    return std::any_of(mac, mac + ADDRESS_LENGTH, [](uint8_t byte) { return byte != 0; });
}

// Interfaces in the order of their indices, which is the order in which they came up.
static bool hardware_address_read(char* buffer, int size) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct if_nameindex* interfaces = if_nameindex();
    bool found = false;
    for (auto* entry = interfaces; entry != nullptr && entry->if_index != 0 && !found; ++entry) {
        ifreq request{};
        strncpy(request.ifr_name, entry->if_name, IFNAMSIZ - 1);
        found = ioctl(fd, SIOCGIFHWADDR, &request) == 0 &&
                request.ifr_hwaddr.sa_family == ARPHRD_ETHER &&
                hardware_address_format(request, buffer, size);
    }
    if (interfaces != nullptr) {
        if_freenameindex(interfaces);
    }
    if (fd != -1) {
        close(fd);
    }
    return found;
}

int create_boxid(char* buffer, int size) {
    if (buffer == nullptr || size < 2) {
        return -1;
    }
    return machine_id_read(buffer, size) || hardware_address_read(buffer, size) ? 0 : -1;
}

int port_info_init(const char* path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path == nullptr || strlen(path) >= sizeof address.sun_path) {
        return -1;
    }
    strcpy(address.sun_path, path);
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd != -1 && bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1) {
        close(fd);
        return -1;
    }
    return fd;
}

int port_info_recv(int fd, void* buffer) {
    // One byte of room more: a datagram that is too long shows by filling it.
    uint8_t datagram[sizeof(port_info_announcement) + 1];
    const ssize_t got = recv(fd, datagram, sizeof datagram, MSG_DONTWAIT);
    if (got == -1) {
        return -1;
    }
    if (got != ssize_t{sizeof(port_info_announcement)}) {
        errno = EMSGSIZE;
        return -1;
    }
    memcpy(buffer, datagram, sizeof(port_info_announcement));
    return 0;
}
