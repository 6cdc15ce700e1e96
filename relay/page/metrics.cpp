#include "page/metrics.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace {

struct sums {
    size_t online = 0, away = 0, links = 0, held_back = 0, open = 0, kept = 0;
    traffic bytes;
    uint64_t cuts;

    explicit sums(const relay& hub) : bytes(hub.forgotten), cuts(hub.forgotten_cuts) {
        for (const auto& [id, box] : hub.devices) {
            const traffic more = device_traffic(*box);
            bytes.from_device += more.from_device;
            bytes.to_device += more.to_device;
            ++(box->away() ? away : online);
            cuts += box->cuts;
            for (const auto& link : box->data) {
                ++links;
                held_back += link->held_back ? 1 : 0;
                open += link->streams.size();
                kept += link->kept.size();
            }
        }
    }
};

struct metrics {
    std::string text;

    void head(const char* name, const char* type, const char* help) {
        text.append("# HELP ").append(name).append(" ").append(help);
        text.append("\n# TYPE ").append(name).append(" ").append(type).append("\n");
    }
    // `labels` with their braces.
    void value(const char* name, const std::string& labels, uint64_t value) {
        text.append(name).append(labels).append(" ").append(std::to_string(value)).append("\n");
    }
    void one(const char* name, const char* type, const char* help, uint64_t number) {
        head(name, type, help);
        value(name, "", number);
    }
};

size_t descriptors_open() {
    std::error_code failed;
    const std::filesystem::directory_iterator all("/proc/self/fd", failed);
    return failed ? 0 : static_cast<size_t>(std::distance(begin(all), end(all)));
}

uint64_t resident_bytes() {
    uint64_t whole = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> whole >> resident;
    return resident * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

void of_devices(metrics& to, const sums& all) {
    to.head("gwrelay_devices", "gauge", "Devices that are known.");
    to.value("gwrelay_devices", "{state=\"online\"}", all.online);
    to.value("gwrelay_devices", "{state=\"away\"}", all.away);
    to.one("gwrelay_data_connections", "gauge", "Data connections of devices.", all.links);
    to.one("gwrelay_data_connections_held_back", "gauge",
           "Those that are not read because a user takes too little.", all.held_back);
    to.head("gwrelay_streams", "gauge", "Streams to services of devices.");
    to.value("gwrelay_streams", "{state=\"open\"}", all.open);
    to.value("gwrelay_streams", "{state=\"kept\"}", all.kept);
    to.one("gwrelay_streams_cut_total", "counter", "Streams that had to give way to others.",
           all.cuts);
    to.head("gwrelay_bytes_total", "counter", "Bytes of streams.");
    to.value("gwrelay_bytes_total", "{direction=\"from_devices\"}", all.bytes.from_device);
    to.value("gwrelay_bytes_total", "{direction=\"to_devices\"}", all.bytes.to_device);
}

void of_users(metrics& to, const relay& hub) {
    to.one("gwrelay_users", "gauge", "Users' connections.", hub.admitted.users);
    to.one("gwrelay_users_max", "gauge", "As many as there may be.", hub.settings.users);
    to.one("gwrelay_users_refused_total", "counter", "Those turned away.", hub.admitted.refused);
    to.one("gwrelay_bytes_waiting", "gauge", "Bytes that users have not taken yet.", hub.pool.used);
    to.head("gwrelay_requests_total", "counter", "Requests that are over, by status.");
    for (size_t hundreds = 1; hundreds < hub.requests.size(); ++hundreds) {
        to.value("gwrelay_requests_total", "{code=\"" + std::to_string(hundreds) + "xx\"}",
                 hub.requests[hundreds]);
    }
}

void of_process(metrics& to, const relay& hub) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const auto up = std::chrono::duration_cast<std::chrono::seconds>(steady::now() - hub.started);
    to.head("gwrelay_info", "gauge", "The version.");
    to.value("gwrelay_info", "{version=\"" GWRELAY_VERSION "\"}", 1);
    to.one("gwrelay_uptime_seconds", "gauge", "Time since the start.",
           static_cast<uint64_t>(up.count()));
    if (hub.tls.context) {
        to.one("gwrelay_certificate_end_seconds", "gauge", "When it ends, since 1970.",
               static_cast<uint64_t>(std::max<int64_t>(hub.tls.ends, 0)));
    }
    to.one("gwrelay_draining", "gauge", "Whether new requests are refused because it ends.",
           hub.draining ? 1 : 0);
    to.one("process_open_fds", "gauge", "Open descriptors.", descriptors_open());
    to.one("process_max_fds", "gauge", "As many as there may be.", limit.rlim_cur);
    to.one("process_resident_memory_bytes", "gauge", "Resident memory.", resident_bytes());
}

}  // namespace

std::string metrics_text(const relay& hub) {
    metrics made;
    of_devices(made, sums(hub));
    of_users(made, hub);
    of_process(made, hub);
    return made.text;
}
