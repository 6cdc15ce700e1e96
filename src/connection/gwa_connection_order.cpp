#include "connection/gwa_connection_order.h"

#include <cstdio>
#include <cstdlib>

#include "runtime/gwa_util_http.h"

namespace {

constexpr size_t KEY_SIZE = 8;
constexpr size_t PORT_TEXT_SIZE = 8;

}  // namespace

// One pair of a data connection order. False: it is not usable.
static bool host_pair_get(const char* text, int number, char (&host)[GWA_HOST_SIZE],
                          uint16_t* port) {
    char key[KEY_SIZE];
    int length = snprintf(key, sizeof key, "host%d", number);
    // A host that does not fit is used as far as it does, so only its first byte tells.
    gwa_json_str_get(text, key, static_cast<size_t>(length), host, sizeof host);
    if (host[0] == '\0') {
        return false;
    }
    char digits[PORT_TEXT_SIZE] = {};
    length = snprintf(key, sizeof key, "port%d", number);
    if (gwa_json_str_get(text, key, static_cast<size_t>(length), digits, sizeof digits) == 0) {
        if (digits[0] == '\0') {
            return false;
        }
        *port = static_cast<uint16_t>(atoi(digits));
    }
    return *port != 0;
}

int gwa_host_list_get(const char* text, gwa_host_list* list) {
    for (int i = 0; i < GWA_HOST_COUNT; i++) {
        if (!host_pair_get(text, i + 1, list->hosts[i], &list->ports[i])) {
            return -1;
        }
    }
    return 0;
}
