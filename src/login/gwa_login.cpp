#include "login/gwa_login.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstdlib>

#include "devid.h"
#include "gwad_config.h"
#include "main/gwa_log.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_types.h"
#include "runtime/gwa_util_file.h"
#include "runtime/gwa_util_lock.h"
#include "runtime/gwa_util_memory.h"
#include "runtime/gwa_util_net.h"

const char GWA_DEFAULT_INTERFACE[] = "br-lan";
gwa_login_settings gwa_login;
char* gwa_device_id = nullptr;

namespace {

constexpr uint32_t LOCAL_ADDRESS = 0x7f000001;  // 127.0.0.1
constexpr long PORT_MAX = 65535;
constexpr size_t ADDRESS_SIZE = INET_ADDRSTRLEN;  // "255.255.255.255" and its terminator
constexpr size_t MAC_SIZE = 20;

struct device_info_pair {
    const char* key;    // null ends the table
    const char* value;  // borrowed from the texts below or the device id
};
constexpr int DEVICE_INFO_COUNT = 16;

// The identity of this box as the server sees it. What is in the texts before gwa_login_init fills
// them is what a box without that value reports.
gwa_mutex device_info_lock;  // workers refresh ip_text and serialise the table
device_info_pair device_info[DEVICE_INFO_COUNT] GWA_GUARDED_BY(device_info_lock);
char mac_text[MAC_SIZE];
char ip_text[ADDRESS_SIZE] GWA_GUARDED_BY(device_info_lock);
gwa_firmware_value firmware_version;
gwa_firmware_value product_version;
gwa_firmware_value component;
gwa_firmware_value terminal;

}  // namespace

static void backup_init() {
    text_copy(gwa_login.backup_domain, GWAD_BACKUP_DOMAIN);
    GWA_LOG(INFO, "back domain %s", gwa_login.backup_domain);
    in_addr address{};
    inet_pton(AF_INET, GWAD_BACKUP_ADDRESS, &address);
    char text[ADDRESS_SIZE] = "";
    inet_ntop(AF_INET, &address, text, sizeof text);
    GWA_LOG(INFO, "back IP addr %s (%s)", text, GWAD_BACKUP_ADDRESS);
    gwa_login.backup_address = ntohl(address.s_addr);
}

static bool server_address_init(const char* text) {
    if (text == nullptr) {
        return true;
    }
    in_addr address{};
    if (inet_pton(AF_INET, text, &address) < 1) {
        GWA_LOG(ERROR, "server ip is invalid %s", text);
        return false;
    }
    gwa_login.server_address = ntohl(address.s_addr);
    GWA_LOG(INFO, "server address %s (0x%08x)", text, gwa_login.server_address);
    return true;
}

static bool local_address_init(const char* text) {
    if (text == nullptr) {
        gwa_login.local_address = LOCAL_ADDRESS;
        GWA_LOG(INFO, "local address 127.0.0.1 (0x%08x)", gwa_login.local_address);
        return true;
    }
    in_addr address{};
    if (inet_pton(AF_INET, text, &address) < 1) {  // dotted only: a name is refused
        GWA_LOG(ERROR, "local ip is invalid %s", text);
        return false;
    }
    gwa_login.local_address = ntohl(address.s_addr);
    GWA_LOG(INFO, "local address %s (0x%08x)", text, gwa_login.local_address);
    return true;
}

static bool port_init(const char* text) {
    gwa_login.server_port = GWA_SERVER_PORT;
    if (text != nullptr) {
        const long port = strtol(text, nullptr, 10);
        if (port < 1 || port > PORT_MAX) {
            GWA_LOG(ERROR, "server port is invalid %s", text);
            return false;
        }
        gwa_login.server_port = static_cast<int32_t>(port);
    }
    GWA_LOG(INFO, "server port %d", gwa_login.server_port);
    return true;
}

static int device_id_init(const char* device_id) {
    auto* id = static_cast<char*>(GWA_MALLOC(GWA_DEVICE_ID_SIZE));
    std::fill_n(id, GWA_DEVICE_ID_SIZE, '\0');
    gwa_device_id = id;  // owned from here on, so that gwa_login_exit frees it after a failure too
    if (device_id != nullptr) {
        snprintf(id, GWA_DEVICE_ID_SIZE, "%s", device_id);
        return GWA_OK;
    }
    if (create_boxid(id, GWA_DEVICE_ID_SIZE) == -1) {
        GWA_LOG(ERROR, "create device box id");
        return GWA_FAILED;
    }
    id[GWA_DEVICE_ID_SIZE - 1] = '\0';  // a box's own library may fill every byte
    return GWA_OK;
}

static int mac_init() {
    uint8_t mac[6] = {};
    if (gwa_interface_mac_get(gwa_login.interface, &mac) != GWA_OK) {
        GWA_LOG(ERROR, "get mac failed");
        return GWA_FAILED;
    }
    snprintf(mac_text, sizeof mac_text, "%02X:%02X:%02X:%02X:%02X:%02X", mac[0], mac[1], mac[2],
             mac[3], mac[4], mac[5]);
    return GWA_OK;
}

static int device_info_init(const char* device_id) {
    const gwa_lock held(device_info_lock);
    std::fill_n(device_info, DEVICE_INFO_COUNT, device_info_pair{});
    if (device_id_init(device_id) != GWA_OK || mac_init() != GWA_OK) {
        return GWA_FAILED;
    }
    text_copy(ip_text, "0.0.0.0");
    for (auto* text : {&firmware_version, &product_version, &component, &terminal}) {
        text_copy(*text, "0");
    }
    gwa_fwver_get(gwa_process_paths.firmware_file, firmware_version, component,
                  terminal);  // a box without the file reports "0"
    const device_info_pair pairs[] = {
        {"deviceid", gwa_device_id}, {"mac", mac_text},           {"ip", ip_text},
        {"fwver", firmware_version}, {"prover", product_version}, {"component", component},
        {"terminal", terminal},
    };
    std::copy(std::begin(pairs), std::end(pairs), device_info);
    return GWA_OK;
}

int gwa_login_init(const char* server_name, const char* server_ip, const char* port,
                   const char* local_ip, const char* interface, const char* device_id) {
    if (server_name == nullptr && server_ip == nullptr) {
        GWA_LOG(ERROR, "need set the server name or IP");
        server_name = GWAD_MAIN_DOMAIN;
    } else {
        GWA_LOG(DEBUG, "login init ...");
    }
    gwa_login = {};
    if (server_name != nullptr) {
        text_copy(gwa_login.server_name, server_name);
        GWA_LOG(INFO, "server name %s", gwa_login.server_name);
    }
    backup_init();
    if (!server_address_init(server_ip) || !local_address_init(local_ip) || !port_init(port)) {
        return GWA_FAILED;
    }
    // Oddity 6: with a device id but no interface there is no default, and the hardware address
    // cannot be read.
    if (interface == nullptr && device_id == nullptr) {
        interface = GWA_DEFAULT_INTERFACE;
    }
    text_copy(gwa_login.interface, interface == nullptr ? "" : interface);
    if (device_info_init(device_id) != GWA_OK) {
        return GWA_FAILED;
    }
    GWA_LOG(INFO, "device information :");
    for (const device_info_pair* pair = device_info; pair->key != nullptr; ++pair) {
        GWA_LOG(INFO, "%s : %s", pair->key, pair->value);
    }
    GWA_LOG(INFO, "login init success");
    return GWA_OK;
}

// An interface that cannot be asked leaves the value as it is.
static void ip_refresh() GWA_REQUIRES(device_info_lock) {
    uint8_t address[4] = {};
    if (gwa_interface_addr_get(gwa_login.interface, &address) == GWA_OK) {
        inet_ntop(AF_INET, address, ip_text, sizeof ip_text);
    }
}

size_t gwa_login_device_info(char* to, size_t size) {
    if (size == 0) {
        return 0;
    }
    const gwa_lock held(device_info_lock);
    ip_refresh();
    size_t length = std::min<size_t>(static_cast<size_t>(snprintf(to, size, "{")), size - 1);
    for (const device_info_pair* pair = device_info; pair->key != nullptr; ++pair) {
        const int added =
            snprintf(to + length, size - length, "\"%s\":\"%s\",", pair->key, pair->value);
        length = std::min(length + static_cast<size_t>(added), size - 1);
    }
    if (length > 1) {
        to[length - 1] = '}';  // in place of the last comma
    }
    return length;
}

int gwa_login_exit() {
    GWA_LOG(PROGRESS, "login exit ...");
    {
        const gwa_lock held(device_info_lock);
        device_info[0] = {};
        free(gwa_device_id);
        gwa_device_id = nullptr;
    }
    GWA_LOG(PROGRESS, "login exit success");
    return GWA_OK;
}
