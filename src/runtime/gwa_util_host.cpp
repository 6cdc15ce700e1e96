#include "runtime/gwa_util_host.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "main/gwa_print.h"
#include "main/gwa_process.h"
#include "runtime/gwa_scoped_fd.h"
#include "runtime/gwa_types.h"

namespace {

constexpr int ROUND_UP_MIN = 32;
constexpr int ROUND_UP_MIN_SHIFT = 5;
constexpr int ROUND_UP_MAX = 8192;

constexpr size_t FIRMWARE_LINE_SIZE = 128;
constexpr int FIRMWARE_READ_SIZE = 127;

constexpr rlim_t FD_LIMIT_DEFAULT = 4096;
constexpr rlim_t FD_LIMIT_UNLIMITED = 0x7fffffff;
// Some systems allow a thousand million descriptors; trying them all would take minutes, and the
// daemon never has more than a few hundred.
constexpr rlim_t FD_LIMIT_MAX = 65536;

constexpr size_t HEX_ROW = 16;
constexpr size_t HEX_ROW_TEXT_SIZE = 96;  // offset, 16 times "00 ", 16 characters, the ends
constexpr size_t SIZE_TEXT_MIN = 16;

// The sanitizers put red zones and shadow frames on the stack.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t THREAD_STACK = 8 * GWA_THREAD_STACK;
#else
constexpr size_t THREAD_STACK = GWA_THREAD_STACK;
#endif

}  // namespace

int gwa_round_up(int size) {
    if (size < 1) {
        GWA_LOG(ERROR, "size is less than 0");
        return 0;
    }
    if (size >= ROUND_UP_MAX) {
        return size;
    }
    int rounded = ROUND_UP_MIN;
    for (int rest = (size - 1) >> ROUND_UP_MIN_SHIFT; rest != 0; rest >>= 1) {
        rounded <<= 1;
    }
    return rounded;
}

void* gwa_malloc(int size, const char* file, int line, const char* function) {
    if (size < 1) {
        GWA_LOG(ERROR, "size is <= 0");
        GWA_BROKEN_RULE();
    }
    const int rounded = gwa_round_up(size);
    void* memory = malloc(static_cast<size_t>(rounded));
    if (memory == nullptr) {
        GWA_LOG(FATAL, "malloc failed, request size %d, %s %d %s", rounded, file, line, function);
        GWA_LOG(FATAL, "exit from func %s, line %s : %d", function, file, line);
        gwa_process_exit(1);
    }
    return memory;
}

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

namespace {

enum firmware_id : unsigned { FIRMWARE_CURVER, FIRMWARE_COMPONENT, FIRMWARE_TERMINAL };

struct firmware_key {
    std::string_view name;
    size_t skipped;  // characters of the value that the tests for its emptiness and end pass over
};

// Oddity 10: a terminal of a single character counts as none.
constexpr firmware_key FIRMWARE_KEYS[] = {{"CURVER=", 0}, {"COMPONENT=", 0}, {"TERMINAL=", 1}};
constexpr size_t FIRMWARE_KEY_COUNT = std::size(FIRMWARE_KEYS);
constexpr unsigned FIRMWARE_ALL_FOUND = (1U << FIRMWARE_KEY_COUNT) - 1;

}  // namespace

static void firmware_value_missing(unsigned id, const char* line) {
    switch (id) {
        case FIRMWARE_CURVER: GWA_LOG(ERROR, "CURVER trancated, %s", line); break;
        case FIRMWARE_COMPONENT: GWA_LOG(ERROR, "COMPONENT trancated, %s", line); break;
        default: GWA_LOG(ERROR, "TERMINAL trancated, %s", line); break;
    }
}

// Takes the value out of a line that may hold the key. True: `value` has been filled.
static bool firmware_line_take(const char* line, unsigned id, gwa_firmware_value& value) {
    const firmware_key& key = FIRMWARE_KEYS[id];
    std::string_view rest = line;
    if (!rest.starts_with(key.name)) {
        return false;
    }
    rest.remove_prefix(key.name.size());
    const size_t end = std::min(rest.find_first_of("\r\n", key.skipped), rest.size());
    if (end <= key.skipped) {
        firmware_value_missing(id, line);
        return false;
    }
    text_copy(value, rest.substr(0, end));
    return true;
}

int gwa_fwver_get(gwa_firmware_value& version, gwa_firmware_value& component,
                  gwa_firmware_value& terminal) {
    const char* path = gwa_process_paths.firmware_file;
    FILE* file = fopen(path, "re");
    if (file == nullptr) {
        GWA_LOG(ERROR, "open firmware version file %s", path);
        return GWA_FAILED;
    }
    gwa_firmware_value* values[FIRMWARE_KEY_COUNT] = {&version, &component, &terminal};
    unsigned found = 0;  // one bit a key
    char line[FIRMWARE_LINE_SIZE];
    // A longer line comes in pieces, each of which may start with a key.
    while (found != FIRMWARE_ALL_FOUND && fgets(line, FIRMWARE_READ_SIZE, file) != nullptr) {
        for (unsigned i = 0; i < FIRMWARE_KEY_COUNT; ++i) {
            if (firmware_line_take(line, i, *values[i])) {
                found |= 1U << i;
            }
        }
    }
    fclose(file);
    return found == FIRMWARE_ALL_FOUND ? GWA_OK : GWA_FAILED;
}

int gwa_file_replace(const char* path) {
    constexpr mode_t FOR_EVERYBODY = 0666;  // less what the process's mask takes away
    return open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_CLOEXEC, FOR_EVERYBODY);
}

int gwa_file_write(const char* path, const void* data, size_t length) {
    const scoped_fd file(gwa_file_replace(path));
    if (file.fd == -1) {
        GWA_LOG(ERROR, "open file failed");
        return GWA_FAILED;
    }
    // A full disk costs this write and nothing else: the next one replaces the file anyway.
    [[maybe_unused]] const ssize_t written = write(file.fd, data, length);
    return GWA_OK;
}

int gwa_close_all_fds() {
#ifdef SYS_close_range
    if (syscall(SYS_close_range, 0U, ~0U, 0U) == 0) {
        return 0;
    }
#endif
    rlimit limit{};
    const bool known = getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY &&
                       limit.rlim_cur != FD_LIMIT_UNLIMITED;
    const rlim_t count = known ? std::min(limit.rlim_cur, FD_LIMIT_MAX) : FD_LIMIT_DEFAULT;
    for (rlim_t fd = 0; fd < count; ++fd) {
        close(static_cast<int>(fd));
    }
    return 0;
}

// One row: its offset, the bytes and, if they fill it, the same as characters.
static void hexdump_row(const unsigned char* bytes, size_t at, size_t count) {
    char row[HEX_ROW_TEXT_SIZE];
    size_t length =
        static_cast<size_t>(snprintf(row, sizeof row, "0x%04x  ", static_cast<unsigned>(at)));
    for (size_t i = 0; i < count; ++i) {
        length += static_cast<size_t>(
            snprintf(row + length, sizeof row - length, "%02x ", bytes[at + i]));
    }
    if (count == HEX_ROW) {
        row[length++] = ' ';
        for (size_t i = 0; i < count; ++i) {
            row[length++] = isprint(bytes[at + i]) != 0 ? static_cast<char>(bytes[at + i]) : '.';
        }
        row[length++] = '\n';
    }
    row[length] = '\0';
    gwa_print("%s", row);
}

void gwa_hexdump(const void* data, size_t length) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    gwa_print("         0  1  2  3  4  5  6  7  8  9  a  b  c  d  e  f\n");
    gwa_print("        -- -- -- -- -- -- -- -- -- -- -- -- -- -- -- --\n");
    for (size_t at = 0; at < length; at += HEX_ROW) {
        hexdump_row(bytes, at, std::min(length - at, HEX_ROW));
    }
    gwa_print("\n");
}

const char* gwa_size_format(uint64_t value, char* buffer, size_t size) {
    static char fallback[SIZE_TEXT_MIN];
    if (buffer == nullptr) {
        buffer = fallback;
        size = sizeof fallback;
    }
    if (size < SIZE_TEXT_MIN) {
        return "ERROR";
    }
    constexpr uint64_t KIB = 1024;
    constexpr int KIB_SHIFT = 10;
    constexpr double PER_KIB = 0x1p-10;
    if (value < KIB) {
        snprintf(buffer, size, "%llu", static_cast<unsigned long long>(value));
        return buffer;
    }
    for (const char* format : {"%.3fK", "%.3fM", "%.3fG", "%.3fT"}) {
        if (value < KIB * KIB) {
            snprintf(buffer, size, format, static_cast<double>(value) * PER_KIB);
            return buffer;
        }
        value >>= KIB_SHIFT;
    }
    snprintf(buffer, size, "XXX");
    return buffer;
}

uint32_t gwa_gettid() { return static_cast<uint32_t>(syscall(SYS_gettid)); }

int gwa_thread_create(pthread_t* thread, void* (*run)(void*), void* argument) {
    pthread_attr_t attributes;
    int failure = pthread_attr_init(&attributes);
    if (failure != 0) {
        return failure;
    }
    failure = pthread_attr_setstacksize(&attributes, THREAD_STACK);
    if (failure == 0) {
        // The new thread inherits the mask of its creator at this moment.
        sigset_t ending, before;
        sigemptyset(&ending);
        sigaddset(&ending, SIGINT);
        sigaddset(&ending, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &ending, &before);
        failure = pthread_create(thread, &attributes, run, argument);
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }
    pthread_attr_destroy(&attributes);
    return failure;
}
