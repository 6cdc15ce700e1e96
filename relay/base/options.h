// options.h - what can be set, by the command line and by a configuration file with the same names.
//
// A new option is a member here, a row in option_table.cpp and a line in docs/relay.md.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/log.h"

using std::chrono::milliseconds;
using steady = std::chrono::steady_clock;
constexpr auto NEVER = steady::time_point::max();

// The reporting times of a device's media server, in seconds, within what a device accepts.
struct report_times {
    uint32_t t1, t2;
    bool operator==(const report_times&) const = default;
};
std::optional<report_times> report_times_parse(std::string_view t1, std::string_view t2);

struct options {
    std::string listen = "127.0.0.1";
    std::string listen_devices, listen_users;  // as `listen` by default
    std::string listen_admin;  // empty: the relay's own pages are at the users', on loopback only
    std::string announce;      // what devices are told to connect to; listen_devices by default
    uint16_t manager_port = 9999, control_port = 9998, data_port = 9997, front_port = 8080;
    uint16_t admin_port = 8081;
    std::string domain = "localhost";  // under which each device has its names; lower case
    std::string service_host;          // that services are told instead of the user's Host
    std::string users_file;            // with passwords (access/accounts.h); empty: nobody is asked
    bool open_users = false;           // not even those who come from elsewhere
    std::string boxes_file;            // the devices there are (access/boxes.h); empty: any
    bool open = false;                 // and any other one
    std::string tls_certificate, tls_key;  // files, for users and the relay's own pages
    std::string trusted_proxy;             // addresses and ranges whose word on a user counts
    std::string proxy_user_header;         // in which they tell his name
    bool command7 = false;  // order the data connections by command 7, not in the login answer
    bool dead_port_guard = true;
    bool reuse = true;                  // of a stream, for one request after another
    std::optional<report_times> times;  // sent to every device after its login
    log_level level = EVENT;
    std::string access_log;  // a file; empty: none
    milliseconds drain{60'000};

    milliseconds login_timeout{60'000};     // for a login, and for a user's request head
    milliseconds silence_timeout{300'000};  // a device's heartbeats come every minute
    milliseconds gone_timeout{55'000};      // a device that acknowledges nothing
    milliseconds stall_timeout{120'000};    // a user who takes none of what waits for him
    milliseconds answer_timeout{120'000};   // a request that nothing on the device answers
    milliseconds linger_timeout{5000};      // silence that ends what has no end of its own
    milliseconds idle_timeout{30'000};      // a user between two requests
    milliseconds reuse_timeout{4000};       // a stream between two requests
    milliseconds settle_timeout{5};         // silence before it is somebody else's
    milliseconds repeat_timeout{2000};      // a request that nothing on a reused stream answers

    // What users have not taken yet: of each, of all, and where it is beyond what memory holds.
    size_t user_buffer = 8UL << 20;
    uint64_t buffers = 1ULL << 30;
    std::string buffer_folder = "/var/tmp";
    // Who keeps others waiting, takes less (bytes a second) over the first time, and that for the
    // second time, is cut.
    size_t least_rate = 16UL << 10;
    milliseconds rate_time{10'000}, slow_timeout{20'000};
    milliseconds stuck_timeout{1000};  // while all data connections of a device are held back
    size_t users = 2000, address_users = 256;  // at once: in all, from one address
    size_t device_streams = 500;  // each costs the device a descriptor, of which it may have 1024
};

struct command_line {
    options set;
    bool check_only = false;
};

// Reads the configuration file, if there is one, then the arguments, which prevail. Nothing, with
// the reason in `error`, when something makes no sense. Help and version end the program.
std::optional<command_line> options_parse(int argc, const char* const* argv, std::string& error);
// Takes over what is live; the names of what would take a restart come back.
std::vector<std::string> options_reload(options& to, options fresh);
