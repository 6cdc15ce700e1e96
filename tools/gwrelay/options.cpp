#include "options.h"

#include <getopt.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <string_view>

namespace {

constexpr uint32_t PORT_MAX = 65534;  // a device refuses 65535 wherever it checks a port
constexpr uint32_t T1_MIN = 2, T1_MAX = 3599, T2_MIN = 3600, T2_MAX = 0x7fffffff;
constexpr uint32_t TIMEOUT_MAX_S = 86400;
// The device keeps a host in 64 bytes, and knows IPv4 addresses and names only.
constexpr size_t HOST_MAX = 63;

constexpr char HELP[] =
    "Usage: gwrelay [options]\n"
    "The development relay: address manager, control and data connections for devices, and an\n"
    "HTTP front door for users at http://ADDRESS:8080/ (/<device id>/<port>/<path>).\n"
    "\n"
    "  --listen ADDRESS        address that everything listens on (127.0.0.1)\n"
    "  --announce ADDRESS      address or name that devices are told to connect to (as --listen)\n"
    "  --manager-port PORT     address manager (9999); 0 lets the kernel choose any of the ports\n"
    "  --control-port PORT     control connections (9998)\n"
    "  --data-port PORT        data connections (9997)\n"
    "  --front-port PORT       front door (8080)\n"
    "  --command7              order the data connections by command 7 instead of in the login\n"
    "                          answer\n"
    "  --report-times T1,T2    send these reporting times (s) to every device after its login;\n"
    "                          later: POST /<device id>/report-times?t1=T1&t2=T2\n"
    "  --no-dead-port-guard    do not follow each request by a frame of its size, which a device\n"
    "                          throws away instead of live frames when the port is dead\n"
    "  --login-timeout S       for a device's login and a user's request head (60)\n"
    "  --silence-timeout S     a device that sends nothing for so long is dropped (300)\n"
    "  --stall-timeout S       a user who takes nothing for so long is dropped (60)\n"
    "  --answer-timeout S      a request unanswered for so long gets a 504 (120)\n"
    "  --linger-timeout S      silence that ends a half-closed user's stream (5)\n"
    "  -q, --quiet             log problems only\n"
    "  -v, --verbose           log every frame header as well\n"
    "  -h, --help              show this text\n"
    "\n"
    "When it listens it prints one line on standard output:\n"
    "ready manager=PORT control=PORT data=PORT front=PORT\n";

enum option_code {
    LISTEN = 256,
    ANNOUNCE,
    MANAGER_PORT,
    CONTROL_PORT,
    DATA_PORT,
    FRONT_PORT,
    COMMAND7,
    REPORT_TIMES,
    NO_GUARD,
    LOGIN_TIMEOUT,
    SILENCE_TIMEOUT,
    STALL_TIMEOUT,
    ANSWER_TIMEOUT,
    LINGER_TIMEOUT
};

constexpr option LONG_OPTIONS[] = {
    {"listen", required_argument, nullptr, LISTEN},
    {"announce", required_argument, nullptr, ANNOUNCE},
    {"manager-port", required_argument, nullptr, MANAGER_PORT},
    {"control-port", required_argument, nullptr, CONTROL_PORT},
    {"data-port", required_argument, nullptr, DATA_PORT},
    {"front-port", required_argument, nullptr, FRONT_PORT},
    {"command7", no_argument, nullptr, COMMAND7},
    {"report-times", required_argument, nullptr, REPORT_TIMES},
    {"no-dead-port-guard", no_argument, nullptr, NO_GUARD},
    {"login-timeout", required_argument, nullptr, LOGIN_TIMEOUT},
    {"silence-timeout", required_argument, nullptr, SILENCE_TIMEOUT},
    {"stall-timeout", required_argument, nullptr, STALL_TIMEOUT},
    {"answer-timeout", required_argument, nullptr, ANSWER_TIMEOUT},
    {"linger-timeout", required_argument, nullptr, LINGER_TIMEOUT},
    {"quiet", no_argument, nullptr, 'q'},
    {"verbose", no_argument, nullptr, 'v'},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

std::optional<uint32_t> number_parse(std::string_view text, uint32_t min, uint32_t max) {
    uint32_t value = 0;
    const char* end = text.data() + text.size();
    const auto [stop, failed] = std::from_chars(text.data(), end, value);
    if (failed != std::errc{} || stop != end || value < min || value > max) {
        return std::nullopt;
    }
    return value;
}

bool port_set(const char* text, uint16_t& to) {
    const auto port = number_parse(text, 0, PORT_MAX);
    to = static_cast<uint16_t>(port.value_or(to));
    return port.has_value();
}

bool timeout_set(const char* text, std::chrono::seconds& to) {
    const auto time = number_parse(text, 1, TIMEOUT_MAX_S);
    to = std::chrono::seconds{time.value_or(0)};
    return time.has_value();
}

bool times_set(std::string_view text, std::optional<report_times>& to) {
    const size_t comma = std::min(text.find(','), text.size());
    const std::string_view second = text.substr(std::min(comma + 1, text.size()));
    to = report_times_parse(std::string(text.substr(0, comma)), std::string(second));
    return to.has_value();
}

// False: the option's value is no good.
bool option_set(int code, const char* value, options& to) {
    switch (code) {
        case LISTEN: to.listen = value; return true;
        case ANNOUNCE: to.announce = value; return true;
        case MANAGER_PORT: return port_set(value, to.manager_port);
        case CONTROL_PORT: return port_set(value, to.control_port);
        case DATA_PORT: return port_set(value, to.data_port);
        case FRONT_PORT: return port_set(value, to.front_port);
        case COMMAND7: to.command7 = true; return true;
        case REPORT_TIMES: return times_set(value, to.times);
        case NO_GUARD: to.dead_port_guard = false; return true;
        case LOGIN_TIMEOUT: return timeout_set(value, to.login_timeout);
        case SILENCE_TIMEOUT: return timeout_set(value, to.silence_timeout);
        case STALL_TIMEOUT: return timeout_set(value, to.stall_timeout);
        case ANSWER_TIMEOUT: return timeout_set(value, to.answer_timeout);
        case LINGER_TIMEOUT: return timeout_set(value, to.linger_timeout);
        case 'q': to.level = log_level::PROBLEMS; return true;
        case 'v': to.level = log_level::FRAMES; return true;
    }
    return false;
}

// Whether a device can be told this address: it goes between double quotes and before a colon.
bool announce_fits(const std::string& address) {
    return !address.empty() && address.size() <= HOST_MAX && address != "0.0.0.0" &&
           std::all_of(address.begin(), address.end(), [](unsigned char c) {
               return isalnum(c) != 0 || c == '.' || c == '-' || c == '_';
           });
}

}  // namespace

std::optional<report_times> report_times_parse(const std::string& t1, const std::string& t2) {
    const auto first = number_parse(t1, T1_MIN, T1_MAX);
    const auto second = number_parse(t2, T2_MIN, T2_MAX);
    if (!first || !second) {
        return std::nullopt;
    }
    return report_times{*first, *second};
}

std::optional<int> options_parse(int argc, char** argv, options& to) {
    for (;;) {
        int index = -1;
        const int code = getopt_long(argc, argv, "qvh", LONG_OPTIONS, &index);
        if (code == -1) {
            break;
        }
        if (code == 'h') {
            fputs(HELP, stdout);
            return 0;
        }
        if (code == '?') {  // getopt_long has said what is wrong
            fputs("gwrelay: try --help\n", stderr);
            return 1;
        }
        if (!option_set(code, optarg, to)) {
            fprintf(stderr, "gwrelay: bad value for --%s: %s\n", LONG_OPTIONS[index].name, optarg);
            return 1;
        }
    }
    if (optind < argc) {
        fprintf(stderr, "gwrelay: unexpected argument: %s\n", argv[optind]);
        return 1;
    }
    if (to.announce.empty()) {
        to.announce = to.listen;
    }
    if (!announce_fits(to.announce)) {
        fprintf(stderr,
                "gwrelay: devices cannot be told the address \"%s\": --announce takes an IPv4 "
                "address or a name of at most %zu characters\n",
                to.announce.c_str(), HOST_MAX);
        return 1;
    }
    return std::nullopt;
}
