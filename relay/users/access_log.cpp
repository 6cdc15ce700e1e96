#include "users/access_log.h"

#include <spdlog/async.h>
#include <spdlog/sinks/basic_file_sink.h>

#include <ctime>

namespace {

constexpr size_t LINES_WAITING = 8192;
constexpr size_t FIELD_MAX = 2048;
constexpr int NOBODY_ANSWERED = 499;

struct writer {
    std::shared_ptr<spdlog::details::thread_pool> thread;
    std::shared_ptr<spdlog::async_logger> logger;  // goes first, and then all that waits is written
};
std::unique_ptr<writer> open_log;  // null: no access log

std::string quoted(std::string_view text) {
    std::string safe = "\"";
    for (const char c : text.substr(0, FIELD_MAX)) {
        if (c >= ' ' && c <= '~' && c != '"' && c != '\\') {
            safe += c;
        } else {
            char escaped[8];
            snprintf(escaped, sizeof escaped, "\\x%02X", static_cast<unsigned char>(c));
            safe += escaped;
        }
    }
    return safe + '"';
}

std::string field(std::string_view value) { return quoted(value.empty() ? "-" : value); }

std::string time_text() {
    const time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    char text[64];
    return {text, strftime(text, sizeof text, "%d/%b/%Y:%H:%M:%S %z", &local)};
}

uint64_t bytes_for(const user_link& user) {
    return user.taken + (user.closed ? 0 : user.out.size());
}

}  // namespace

bool access_log_open(const std::string& path) {
    if (path.empty()) {
        open_log = nullptr;
        return true;
    }
    try {
        const auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(path);
        auto fresh = std::make_unique<writer>();
        fresh->thread = std::make_shared<spdlog::details::thread_pool>(LINES_WAITING, 1);
        fresh->logger = std::make_shared<spdlog::async_logger>(
            "access", sink, fresh->thread, spdlog::async_overflow_policy::overrun_oldest);
        fresh->logger->set_pattern("%v");
        fresh->logger->flush_on(spdlog::level::info);
        open_log = std::move(fresh);
        return true;
    } catch (const spdlog::spdlog_ex& failed) {
        log_line(PROBLEM, "access log: %s", failed.what());
        return false;
    }
}

access_record::access_record(const user_link& user, const http_request& request)
    : bytes_before(bytes_for(user)) {
    if (open_log != nullptr) {
        const std::string query = request.query.empty() ? "" : "?" + std::string(request.query);
        asked = quoted(std::string(request.method) + " " + std::string(request.path) + query + " " +
                       std::string(request.version));
        said = field(http_header(request.headers, "referer")) + " " +
               field(http_header(request.headers, "user-agent"));
    }
}

void access_log_write(relay& hub, const user_link& user, const access_record& record) {
    const int code = user.answered != 0 ? user.answered : user.response.code();
    const int status = code >= 100 && code <= 599 ? code : NOBODY_ANSWERED;
    ++hub.requests[static_cast<size_t>(status / 100)];
    if (open_log == nullptr || record.asked.empty()) {
        return;
    }
    const uint64_t bytes = bytes_for(user);
    const std::string counts =
        std::to_string(status) + " " + std::to_string(bytes - std::min(bytes, record.bytes_before));
    const std::string where = user.owner == nullptr
                                  ? "\"-\" -"
                                  : quoted(user.owner->id) + " " + std::to_string(user.port);
    open_log->logger->info("{} - {} [{}] {} {} {} {}", user.name.substr(0, user.name.rfind(':')),
                           user.who ? log_text(user.who->name) : "-", time_text(), record.asked,
                           counts, record.said, where);
}
