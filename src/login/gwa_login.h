// gwa_login.h - the login settings and the identity of this box.
//
// Owner:   both records are process-wide and live until gwa_login_exit.
// Threads: gwa_login_init and gwa_login_exit on the main thread while no worker runs; the settings
//          are read-only in between; the device-info table is refreshed and serialised under a lock
//          of its own by any thread that logs in.
// Results: 0, or -1 after the reason has been logged.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t GWA_NAME_SIZE = 64;        // visible length; the fields hold a terminator more
constexpr size_t GWA_INTERFACE_SIZE = 8;    // likewise
constexpr size_t GWA_DEVICE_ID_SIZE = 48;   // at most 47 characters
constexpr int GWA_SERVER_COUNT = 4;         // addresses that discovery asks in turn
constexpr int GWA_SERVER_PORT = 9999;       // default of -p
extern const char GWA_DEFAULT_INTERFACE[];  // default of -i

struct gwa_login_settings {
    char server_name[GWA_NAME_SIZE + 1] = "";
    char backup_domain[GWA_NAME_SIZE + 1] = "";
    uint32_t servers[GWA_SERVER_COUNT] =
        {};                       // IPv4, host order; filled by discovery on the main thread
    uint32_t server_address = 0;  // IPv4, host order, from -R: validated, never contacted
    uint32_t backup_address = 0;  // IPv4, host order
    char interface[GWA_INTERFACE_SIZE + 1] = "";
    uint32_t local_address = 0;  // IPv4, host order: where the local services are
    int32_t server_port = 0;
};
extern gwa_login_settings gwa_login;

// The device id that requests must name; null before gwa_login_init and after gwa_login_exit.
extern char* gwa_device_id;

// Builds settings and device-info table from the option texts, each of which may be null.
int gwa_login_init(const char* server_name, const char* server_ip, const char* port,
                   const char* local_ip, const char* interface, const char* device_id);
// Refreshes the "ip" value from the interface and writes the table as one JSON object, terminated
// and cut to the buffer. Returns its length.
size_t gwa_login_device_info(char* to, size_t size);
// Frees the device id. Always 0.
int gwa_login_exit();
