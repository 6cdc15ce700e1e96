#include "base/options.h"

#include <getopt.h>

#include <algorithm>
#include <cstdio>
#include <vector>

#include "base/text.h"

namespace {

constexpr uint16_t PORT_MAX = 65534;  // a device refuses 65535 wherever it checks a port
constexpr uint32_t T1_MIN = 2, T1_MAX = 3599, T2_MIN = 3600, T2_MAX = 0x7fffffff;
constexpr int TIMEOUT_MIN_MS = 10;
constexpr double TIMEOUT_MAX_S = 86400, MS_PER_S = 1000;
constexpr int SETTLE_MIN_MS = 1;  // which no tick has to see
// The device keeps a host in 64 bytes, and knows IPv4 addresses and names only.
constexpr size_t HOST_MAX = 63;

struct option_row {
    const char *name, *value, *help;
    bool (*set)(options& to, const char* value);  // false: the value is no good
};

template <auto Member, auto Value>
bool set_fixed(options& to, const char*) {
    to.*Member = Value;
    return true;
}

template <auto Member>
bool set_text(options& to, const char* value) {
    to.*Member = value;
    return true;
}

template <auto Member>
bool set_port(options& to, const char* value) {
    const auto port = number_parse<uint16_t>(value);
    to.*Member = port.value_or(0);
    return port && *port <= PORT_MAX;
}

template <auto Member, int LeastMs = TIMEOUT_MIN_MS>
bool set_timeout(options& to, const char* value) {
    const double time_s = number_parse<double>(value).value_or(0);
    if (!(time_s * MS_PER_S >= LeastMs && time_s <= TIMEOUT_MAX_S)) {  // nor is what is no number
        return false;
    }
    to.*Member = std::chrono::duration_cast<milliseconds>(std::chrono::duration<double>(time_s));
    return true;
}

// Bytes: a number, of units of 1024 when a letter follows.
template <auto Member, uint64_t Least = 0>
bool set_bytes(options& to, const char* value) {
    constexpr std::string_view UNITS = "KMG";
    std::string_view text = value;
    const size_t unit = text.empty() ? UNITS.npos : UNITS.find(text.back());
    const auto number = number_parse<uint32_t>(text.substr(0, text.size() - (unit < UNITS.size())));
    to.*Member = uint64_t{number.value_or(0)} << (unit < UNITS.size() ? 10 * (unit + 1) : 0);
    return number && to.*Member >= Least;
}

template <auto Member>
bool set_count(options& to, const char* value) {
    to.*Member = number_parse<uint32_t>(value).value_or(0);
    return to.*Member > 0;
}

bool set_times(options& to, const char* value) {
    const std::string_view text = value;
    const size_t comma = std::min(text.find(','), text.size());
    to.times =
        report_times_parse(text.substr(0, comma), text.substr(std::min(comma + 1, text.size())));
    return to.times.has_value();
}

// As hosts are compared: in lower case, without a dot at either end.
bool set_domain(options& to, const char* value) {
    to.domain = value;
    std::ranges::transform(to.domain, to.domain.begin(),
                           [](unsigned char c) { return tolower(c); });
    return !to.domain.empty() && !to.domain.starts_with('.') && !to.domain.ends_with('.') &&
           std::ranges::all_of(
               to.domain, [](unsigned char c) { return isalnum(c) != 0 || c == '.' || c == '-'; });
}

bool show_help(options& to, const char*);

bool show_version(options&, const char*) {
    puts("gwrelay " GWRELAY_VERSION);
    exit(EXIT_SUCCESS);
}

constexpr option_row OPTIONS[] = {
    {"listen", "ADDRESS", "address that everything listens on (127.0.0.1)",
     set_text<&options::listen>},
    {"announce", "ADDRESS", "address or name that devices are told to connect to (as --listen)",
     set_text<&options::announce>},
    {"manager-port", "PORT", "address manager (9999); 0 lets the kernel choose any of the ports",
     set_port<&options::manager_port>},
    {"control-port", "PORT", "control connections (9998)", set_port<&options::control_port>},
    {"data-port", "PORT", "data connections (9997)", set_port<&options::data_port>},
    {"front-port", "PORT", "front door (8080)", set_port<&options::front_port>},
    {"domain", "NAME", "reach ports of devices at DEVICE--PORT.NAME (localhost)", set_domain},
    {"service-host", "NAME", "tell services this Host, with their port, not what the user asked",
     set_text<&options::service_host>},
    {"command7", nullptr, "order data connections by command 7, not in the login answer",
     set_fixed<&options::command7, true>},
    {"report-times", "T1,T2", "send these reporting times (s) to every device after its login",
     set_times},
    {"no-dead-port-guard", nullptr,
     "do not find out whether a port is alive: a dead one costs others data",
     set_fixed<&options::dead_port_guard, false>},
    {"no-reuse", nullptr, "a stream of its own for every request",
     set_fixed<&options::reuse, false>},
    {"login-timeout", "S",
     "for a device's login and a user's request head (60); any S may be a fraction",
     set_timeout<&options::login_timeout>},
    {"silence-timeout", "S", "ends a device that sends nothing, and an idle stream (300)",
     set_timeout<&options::silence_timeout>},
    {"gone-timeout", "S", "ends a device that acknowledges nothing (55)",
     set_timeout<&options::gone_timeout>},
    {"stall-timeout", "S", "ends a user who takes nothing of what waits for him (120)",
     set_timeout<&options::stall_timeout>},
    {"answer-timeout", "S", "a request unanswered for so long gets a 504 (120)",
     set_timeout<&options::answer_timeout>},
    {"linger-timeout", "S",
     "ends, when silent, a half-closed user or a response of unknown length (5)",
     set_timeout<&options::linger_timeout>},
    {"idle-timeout", "S", "ends a user's connection that waits for his next request (30)",
     set_timeout<&options::idle_timeout>},
    {"reuse-timeout", "S", "a stream may serve another request for so long (4)",
     set_timeout<&options::reuse_timeout>},
    {"settle-timeout", "S", "and one of another user after so long a silence (0.005)",
     set_timeout<&options::settle_timeout, SETTLE_MIN_MS>},
    {"repeat-timeout", "S",
     "such a request, unanswered for so long, goes once more on a new one (2)",
     set_timeout<&options::repeat_timeout>},
    {"user-buffer", "BYTES", "what waits for a user, 64K at least (8M); K, M, G count by 1024",
     set_bytes<&options::user_buffer, 64 << 10>},
    {"buffers", "BYTES", "what waits for all users; beyond it nobody gets a file (1G)",
     set_bytes<&options::buffers>},
    {"buffer-folder", "FOLDER", "where it waits, beyond 256K of each user (/var/tmp)",
     set_text<&options::buffer_folder>},
    {"least-rate", "BYTES", "who keeps others waiting and takes less a second is cut (16K)",
     set_bytes<&options::least_rate>},
    {"rate-time", "S", "the time that such a rate is measured over (10)",
     set_timeout<&options::rate_time>},
    {"slow-timeout", "S", "who has been too slow for so long is cut (20)",
     set_timeout<&options::slow_timeout>},
    {"stuck-timeout", "S", "a device whose data connections are all held back gets one back (1)",
     set_timeout<&options::stuck_timeout>},
    {"device-streams", "N", "streams of a device, a fifth on each data connection (500)",
     set_count<&options::device_streams>},
    {"address-users", "N", "users from one address (256)", set_count<&options::address_users>},
    {"users", "N", "users in all (2000)", set_count<&options::users>},
    {"quiet", nullptr, "log problems only (-q)", set_fixed<&options::level, PROBLEM>},
    {"verbose", nullptr, "log every frame header as well (-v)", set_fixed<&options::level, FRAME>},
    {"version", nullptr, "show the version", show_version},
    {"help", nullptr, "show this text (-h)", show_help},
};

bool show_help(options&, const char*) {
    puts(
        "Usage: gwrelay [options]\n"
        "The development relay: address manager, control and data connections for devices, and\n"
        "an HTTP front door for users at http://127.0.0.1:8080/ with a page that lists them.\n"
        "http://DEVICE--PORT.localhost:8080/ is a port of a device, and so is /DEVICE/PORT/PATH "
        "at\n"
        "the front door itself; there ?gwrelay-pri=N sets a priority, and\n"
        "POST /DEVICE/report-times?t1=S&t2=S sets its reporting times.\n");
    for (const option_row& row : OPTIONS) {
        const std::string name = row.name + std::string(" ") + (row.value ? row.value : "");
        printf("  --%-21s %s\n", name.c_str(), row.help);
    }
    puts(
        "\nOnce it listens, it prints one line on standard output:\n"
        "ready manager=PORT control=PORT data=PORT front=PORT");
    exit(EXIT_SUCCESS);
}

// Whether a device can be told this address: it goes between double quotes and before a colon.
bool announce_fits(const std::string& address) {
    return !address.empty() && address.size() <= HOST_MAX && address != "0.0.0.0" &&
           std::ranges::all_of(address, [](unsigned char c) {
               return isalnum(c) != 0 || c == '.' || c == '-' || c == '_';
           });
}

}  // namespace

std::optional<report_times> report_times_parse(std::string_view t1, std::string_view t2) {
    const report_times times{number_parse<uint32_t>(t1).value_or(0),
                             number_parse<uint32_t>(t2).value_or(0)};
    const bool fit =
        times.t1 >= T1_MIN && times.t1 <= T1_MAX && times.t2 >= T2_MIN && times.t2 <= T2_MAX;
    return fit ? std::optional(times) : std::nullopt;
}

bool options_parse(int argc, char** argv, options& to) {
    std::vector<option> names;
    const auto letter = [](const option_row& row) { return row.name[0]; };
    for (const option_row& row : OPTIONS) {  // a short name is the first letter, of the first row
        const bool has_short =
            std::string_view("qvh").find(row.name[0]) != std::string_view::npos &&
            std::ranges::find(OPTIONS, row.name[0], letter) == &row;
        names.push_back({row.name, row.value ? required_argument : no_argument, nullptr,
                         has_short ? row.name[0] : 0});
    }
    names.push_back({});
    int index = 0;
    for (int code; (code = getopt_long(argc, argv, "qvh", names.data(), &index)) != -1;) {
        if (code == '?') {  // getopt_long has said what is wrong
            fputs("gwrelay: try --help\n", stderr);
            return false;
        }
        const option_row* row =
            code == 0 ? &OPTIONS[index] : std::ranges::find(OPTIONS, code, letter);
        if (!row->set(to, optarg)) {
            fprintf(stderr, "gwrelay: bad value for --%s: %s\n", row->name, optarg);
            return false;
        }
    }
    if (optind < argc) {
        fprintf(stderr, "gwrelay: unexpected argument: %s\n", argv[optind]);
        return false;
    }
    to.announce = to.announce.empty() ? to.listen : to.announce;
    if (!announce_fits(to.announce)) {
        fprintf(stderr,
                "gwrelay: devices cannot be told the address \"%s\": --announce takes an IPv4 "
                "address or a name of at most %zu characters\n",
                to.announce.c_str(), HOST_MAX);
        return false;
    }
    return true;
}
