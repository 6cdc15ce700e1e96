// gwad_announce.cpp - announces a local service's port, or the DLNA status, to gwad by hand or from
// a service's start script. See devid.h for what goes over the sockets.

#include <getopt.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "devid.h"

namespace {

constexpr char USAGE[] =
    "usage: gwad-announce [options] http|ubq|kctl|MODULE PORT\n"
    "       gwad-announce [options] dlna WORD\n"
    "  -p --port-socket=path   where ports are announced, default is /tmp/mko_port_gwad.sock\n"
    "  -d --dlna-socket=path   where the DLNA status goes, default is /tmp/dlna.sock\n"
    "  -h --help               show this help message\n"
    "Numbers are decimal, or hexadecimal behind 0x.\n";

// What a box's own device library expects of a datagram is its maker's affair: one from here would
// be taken for something else, or for nothing.
constexpr bool PORTS_FIT = GWAD_DEVID_IS_STAND_IN;
constexpr char PORTS_DO_NOT_FIT[] =
    "gwad-announce: does not fit this gwad, which has the box's own device library: announce ports "
    "by that library's means; only dlna goes from here\n";

constexpr option LONG_OPTIONS[] = {
    {"port-socket", required_argument, nullptr, 'p'},
    {"dlna-socket", required_argument, nullptr, 'd'},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

struct module_name {
    const char* name;
    uint32_t id;
};
constexpr uint32_t PORT_MAX = 65535;
constexpr timeval PATIENCE{5, 0};  // a daemon that hangs must not hang the start of a service

constexpr module_name MODULES[] = {{"http", 3}, {"ubq", 4}, {"kctl", 5}};

}  // namespace

static bool number_read(const char* text, uint32_t most, uint32_t* out) {
    const bool hexadecimal = text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    char* end = nullptr;
    errno = 0;
    const unsigned long long value = strtoull(text, &end, hexadecimal ? 16 : 10);
    if (text[0] < '0' || text[0] > '9' || *end != '\0' || errno != 0 || value > most) {
        fprintf(stderr, "gwad-announce: not a number from 0 to %u: %s\n", most, text);
        return false;
    }
    *out = static_cast<uint32_t>(value);
    return true;
}

static bool module_read(const char* text, uint32_t* out) {
    for (const module_name& known : MODULES) {
        if (strcmp(known.name, text) == 0) {
            *out = known.id;
            return true;
        }
    }
    return number_read(text, UINT32_MAX, out);
}

// Sends the bytes to the socket at `path`. The exit status.
static int deliver(const char* path, int type, const void* bytes, size_t length) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (strlen(path) >= sizeof address.sun_path) {
        fprintf(stderr, "gwad-announce: the socket's path is too long: %s\n", path);
        return 1;
    }
    memcpy(address.sun_path, path, strlen(path) + 1);
    const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    if (fd == -1 || setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &PATIENCE, sizeof PATIENCE) == -1 ||
        connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1 ||
        send(fd, bytes, length, MSG_NOSIGNAL) != static_cast<ssize_t>(length)) {
        fprintf(stderr, "gwad-announce: %s: %s\n", path, strerror(errno));
        return 1;
    }
    close(fd);
    return 0;
}

int main(int argc, char* argv[]) {
    const char* port_socket = "/tmp/mko_port_gwad.sock";
    const char* dlna_socket = "/tmp/dlna.sock";
    for (int letter = 0;
         (letter = getopt_long(argc, argv, "p:d:h", LONG_OPTIONS, nullptr)) != -1;) {
        switch (letter) {
            case 'p': port_socket = optarg; break;
            case 'd': dlna_socket = optarg; break;
            case 'h': fputs(USAGE, stdout); return 0;
            default: fputs(USAGE, stderr); return 1;
        }
    }
    if (argc - optind != 2) {
        fputs(USAGE, stderr);
        return 1;
    }
    const bool dlna = strcmp(argv[optind], "dlna") == 0;
    if (!dlna && !PORTS_FIT) {
        fputs(PORTS_DO_NOT_FIT, stderr);
        return 1;
    }
    uint32_t value = 0;
    if (!number_read(argv[optind + 1], dlna ? UINT32_MAX : PORT_MAX, &value)) {
        return 1;
    }
    if (dlna) {
        return deliver(dlna_socket, SOCK_STREAM, &value, sizeof value);
    }
    port_info_announcement announcement{0, value};
    if (!module_read(argv[optind], &announcement.module)) {
        return 1;
    }
    return deliver(port_socket, SOCK_DGRAM, &announcement, sizeof announcement);
}
