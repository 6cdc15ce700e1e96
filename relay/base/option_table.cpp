#include "base/option_table.h"

#include <algorithm>

#include "base/text.h"

namespace {

using enum option_time;

constexpr uint16_t PORT_MAX = 65534;  // a device refuses 65535 wherever it checks a port
constexpr int TIMEOUT_MIN_MS = 10;
constexpr double TIMEOUT_MAX_S = 86400, MS_PER_S = 1000;
constexpr int SETTLE_MIN_MS = 1;  // which no tick has to see

template <auto Member>
bool same(const options& one, const options& other) {
    return one.*Member == other.*Member;
}

template <auto Member>
void copy(options& to, const options& from) {
    to.*Member = from.*Member;
}

template <auto Member>
constexpr option_effect effect(bool (*set)(options& to, const std::string& value)) {
    return {set, same<Member>, copy<Member>};
}

template <auto Member, auto Value>
bool put_fixed(options& to, const std::string&) {
    to.*Member = Value;
    return true;
}

template <auto Member>
bool put_text(options& to, const std::string& value) {
    to.*Member = value;
    return true;
}

template <auto Member>
bool put_port(options& to, const std::string& value) {
    const auto port = number_parse<uint16_t>(value);
    to.*Member = port.value_or(0);
    return port && *port <= PORT_MAX;
}

template <auto Member, int LeastMs = TIMEOUT_MIN_MS>
bool put_timeout(options& to, const std::string& value) {
    const double time_s = number_parse<double>(value).value_or(-1);
    if (!(time_s * MS_PER_S >= LeastMs && time_s <= TIMEOUT_MAX_S)) {  // nor is what is no number
        return false;
    }
    to.*Member = std::chrono::duration_cast<milliseconds>(std::chrono::duration<double>(time_s));
    return true;
}

// Bytes: a number, of units of 1024 when a letter follows.
template <auto Member, uint64_t Least = 0>
bool put_bytes(options& to, const std::string& value) {
    constexpr std::string_view UNITS = "KMG";
    std::string_view text = value;
    const size_t unit = text.empty() ? UNITS.npos : UNITS.find(text.back());
    const auto number = number_parse<uint32_t>(text.substr(0, text.size() - (unit < UNITS.size())));
    to.*Member = uint64_t{number.value_or(0)} << (unit < UNITS.size() ? 10 * (unit + 1) : 0);
    return number && to.*Member >= Least;
}

template <auto Member>
bool put_count(options& to, const std::string& value) {
    to.*Member = number_parse<uint32_t>(value).value_or(0);
    return to.*Member > 0;
}

bool put_times(options& to, const std::string& value) {
    const std::string_view text = value;
    const size_t comma = std::min(text.find(','), text.size());
    to.times =
        report_times_parse(text.substr(0, comma), text.substr(std::min(comma + 1, text.size())));
    return to.times.has_value();
}

// As hosts are compared: in lower case, without a dot at either end.
bool put_domain(options& to, const std::string& value) {
    to.domain = value;
    std::ranges::transform(to.domain, to.domain.begin(),
                           [](unsigned char c) { return tolower(c); });
    return !to.domain.empty() && !to.domain.starts_with('.') && !to.domain.ends_with('.') &&
           std::ranges::all_of(
               to.domain, [](unsigned char c) { return isalnum(c) != 0 || c == '.' || c == '-'; });
}

template <auto Member, auto Value>
constexpr option_effect set_fixed = effect<Member>(put_fixed<Member, Value>);
template <auto Member>
constexpr option_effect set_text = effect<Member>(put_text<Member>);
template <auto Member>
constexpr option_effect set_port = effect<Member>(put_port<Member>);
template <auto Member, int LeastMs = TIMEOUT_MIN_MS>
constexpr option_effect set_timeout = effect<Member>(put_timeout<Member, LeastMs>);
template <auto Member, uint64_t Least = 0>
constexpr option_effect set_bytes = effect<Member>(put_bytes<Member, Least>);
template <auto Member>
constexpr option_effect set_count = effect<Member>(put_count<Member>);
constexpr option_effect set_times = effect<&options::times>(put_times);
constexpr option_effect set_domain = effect<&options::domain>(put_domain);

constexpr option_row ADDRESSES[] = {
    {"listen", "ADDRESS", "what everything listens on that has no address of its own (127.0.0.1)",
     set_text<&options::listen>, START},
    {"listen-devices", "ADDRESS", "for devices", set_text<&options::listen_devices>, START},
    {"listen-users", "ADDRESS", "for users", set_text<&options::listen_users>, START},
    {"listen-admin", "ADDRESS",
     "for the relay's own pages; without it users have them, on loopback only",
     set_text<&options::listen_admin>, START},
    {"announce", "ADDRESS", "address or name that devices are told to connect to (as they have it)",
     set_text<&options::announce>, START},
    {"manager-port", "PORT", "address manager (9999); 0 lets the kernel choose any of the ports",
     set_port<&options::manager_port>, START},
    {"control-port", "PORT", "control connections (9998)", set_port<&options::control_port>, START},
    {"data-port", "PORT", "data connections (9997)", set_port<&options::data_port>, START},
    {"front-port", "PORT", "front door (8080)", set_port<&options::front_port>, START},
    {"admin-port", "PORT", "the relay's own pages, with --listen-admin (8081)",
     set_port<&options::admin_port>, START},
    {"tls-certificate", "FILE", "TLS for users and the relay's own pages: PEM, with those above it",
     set_text<&options::tls_certificate>, START},
    {"tls-key", "FILE", "its key; both are read anew when they change", set_text<&options::tls_key>,
     START},
    {"domain", "NAME", "reach ports of devices at DEVICE--PORT.NAME (localhost)", set_domain},
    {"service-host", "NAME", "tell services this Host, with their port, not what the user asked",
     set_text<&options::service_host>},
};

constexpr option_row ENTRANCE[] = {
    {"users-file", "FILE", "who may come in, lines of NAME:HASH:DEVICES (docs/relay.md)",
     set_text<&options::users_file>, START},
    {"open-users", nullptr, "without such a file everybody may, from elsewhere too",
     set_fixed<&options::open_users, true>},
    {"boxes-file", "FILE", "the devices that there are, lines of NAME ID (docs/relay.md)",
     set_text<&options::boxes_file>, START},
    {"open", nullptr, "any other device may come as well, and needs no such file",
     set_fixed<&options::open, true>},
    {"trusted-proxy", "ADDRESSES", "whose X-Forwarded-For and -Proto count: 127.0.0.1,10.0.0.0/8",
     set_text<&options::trusted_proxy>},
    {"proxy-user-header", "NAME", "in which such a proxy tells the name of a user it has asked",
     set_text<&options::proxy_user_header>},
};

constexpr option_row DEVICES[] = {
    {"command7", nullptr, "order data connections by command 7, not in the login answer",
     set_fixed<&options::command7, true>},
    {"report-times", "T1,T2", "send these reporting times (s) to every device after its login",
     set_times},
    {"no-dead-port-guard", nullptr,
     "do not find out whether a port is alive: a dead one costs others data",
     set_fixed<&options::dead_port_guard, false>},
    {"no-reuse", nullptr, "a stream of its own for every request",
     set_fixed<&options::reuse, false>},
};

constexpr option_row TIMES[] = {
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
    {"drain", "S", "after SIGTERM, for requests that are under way; 0 to 86400 (60)",
     set_timeout<&options::drain, 0>},
};

constexpr option_row USERS[] = {
    {"user-buffer", "BYTES", "what waits for a user, 64K at least (8M); K, M, G count by 1024",
     set_bytes<&options::user_buffer, 64 << 10>, START},
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
};

constexpr option_row LOG[] = {
    {"access-log", "FILE", "a line for each request; SIGUSR1 opens it anew",
     set_text<&options::access_log>},
    {"quiet", nullptr, "log problems only", set_fixed<&options::level, PROBLEM>},
    {"verbose", nullptr, "log every frame header as well", set_fixed<&options::level, FRAME>},
};

constexpr option_group GROUPS[] = {
    {"Addresses", ADDRESSES}, {"Who may come in", ENTRANCE},  {"Devices", DEVICES},
    {"Times", TIMES},         {"What users may take", USERS}, {"Log", LOG},
};

}  // namespace

std::span<const option_group> option_groups() { return GROUPS; }

const option_row* option_find(std::string_view name) {
    for (const option_group& group : GROUPS) {
        const auto row = std::ranges::find(group.rows, name, &option_row::name);
        if (row != group.rows.end()) {
            return &*row;
        }
    }
    return nullptr;
}
