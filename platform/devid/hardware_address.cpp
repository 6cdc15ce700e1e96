#include "hardware_address.h"

#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <iterator>

namespace {

// Ranks: the greater, the better.
constexpr int WORST = 0;
constexpr int UNKNOWN = 1;
constexpr int SET = 2;
constexpr int PERMANENT = 3;
constexpr int FROM_DEVICE = 3;  // is added, so that the least of these is above all others

}  // namespace

// What the kernel says of the address: 0 permanent, 1 random, 2 another interface's, 3 set.
static char assign_type(const char* sysfs, const char* name) {
    char path[PATH_MAX] = "";
    snprintf(path, sizeof path, "%s/%s/addr_assign_type", sysfs, name);
    FILE* file = fopen(path, "re");
    if (file == nullptr) {
        return '?';
    }
    const int digit = fgetc(file);
    fclose(file);
    return static_cast<char>(digit);
}

static bool has_device(const char* sysfs, const char* name) {
    char path[PATH_MAX] = "";
    snprintf(path, sizeof path, "%s/%s/device", sysfs, name);
    return access(path, F_OK) == 0;
}

static int rank_of(const char* sysfs, const char* name) {
    const int from_device = has_device(sysfs, name) ? FROM_DEVICE : 0;
    switch (assign_type(sysfs, name)) {
        case '0': return PERMANENT + from_device;
        case '1':
        case '2': return WORST;
        case '3': return SET + from_device;
        default: return UNKNOWN + from_device;
    }
}

bool hardware_address_choose(const struct if_nameindex* interfaces, const char* sysfs,
                             hardware_address_reader reader,
                             uint8_t (&address)[HARDWARE_ADDRESS_LENGTH]) {
    int best = -1;
    for (const auto* entry = interfaces; entry != nullptr && entry->if_index != 0; ++entry) {
        uint8_t read[HARDWARE_ADDRESS_LENGTH] = {};
        const int rank = rank_of(sysfs, entry->if_name);
        if (rank > best && reader(entry->if_name, read)) {
            best = rank;
            std::copy(std::begin(read), std::end(read), address);
        }
    }
    return best >= 0;
}
