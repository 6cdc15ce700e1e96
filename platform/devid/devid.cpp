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

#include "hardware_address.h"

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

static bool ethernet_address_read(const char* name, uint8_t (&address)[HARDWARE_ADDRESS_LENGTH]) {
    ifreq request{};
    strncpy(request.ifr_name, name, IFNAMSIZ - 1);
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool read = ioctl(fd, SIOCGIFHWADDR, &request) == 0;
    if (fd != -1) {
        close(fd);
    }
    memcpy(address, request.ifr_hwaddr.sa_data, sizeof address);
    return read && request.ifr_hwaddr.sa_family == ARPHRD_ETHER &&
           std::any_of(address, address + sizeof address, [](uint8_t byte) { return byte != 0; });
}

static bool hardware_address_write(char* buffer, int size) {
    uint8_t mac[HARDWARE_ADDRESS_LENGTH] = {};
    struct if_nameindex* interfaces = if_nameindex();
    const bool found =
        hardware_address_choose(interfaces, "/sys/class/net", ethernet_address_read, mac);
    if (interfaces != nullptr) {
        if_freenameindex(interfaces);
    }
    if (found) {
        snprintf(buffer, static_cast<size_t>(size), "%02x%02x%02x%02x%02x%02x", mac[0], mac[1],
                 mac[2], mac[3], mac[4], mac[5]);
    }
    return found;
}

int create_boxid(char* buffer, int size) {
    if (buffer == nullptr || size < 2) {
        return -1;
    }
    return machine_id_read(buffer, size) || hardware_address_write(buffer, size) ? 0 : -1;
}

int port_info_init(const char* path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path == nullptr || strlen(path) >= sizeof address.sun_path) {
        return -1;
    }
    memcpy(address.sun_path, path, strlen(path) + 1);
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
