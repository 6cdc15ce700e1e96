#include "manager.h"

#include <algorithm>

namespace {

constexpr size_t QUERY_MAX = 4096;
constexpr std::string_view REFUSED = "{\"ret\":1}";

}  // namespace

// One request a connection. A device parses what its first receive returns, so head and body leave
// in one write.
awaitable<void> manager_serve(relay& hub, std::shared_ptr<connection> link) {
    std::string head(QUERY_MAX, '\0');
    size_t filled = 0;
    while (std::string_view(head.data(), filled).find("\r\n\r\n") == std::string_view::npos) {
        const size_t got = co_await connection_receive(*link, std::span(head).subspan(filled));
        if (got == 0) {  // the peer left, or the head is longer than any device's
            link->refuse(filled == QUERY_MAX ? "query too long" : "no query");
            co_return;
        }
        filled += got;
    }
    const auto request = http_request_parse({head.data(), filled});
    const auto id = request ? query_take(request->query, "devid") : std::nullopt;
    const bool known = request && request->method == "GET" &&
                       request->path == "/addrmgr/device_get_proxy" && id && !id->empty();
    if (known) {
        log_event("%s: device %s asks for its control server: %s", link->name.c_str(),
                  log_text(*id).c_str(), hub.manager_body.c_str());
        link->send(http_reply(200, "application/json", hub.manager_body));
    } else {
        log_problem("%s: not an address query: %s", link->name.c_str(),
                    log_text(head.substr(0, std::min(head.find('\r'), filled))).c_str());
        link->send(http_reply(request ? 404 : 400, "application/json", REFUSED));
    }
    co_await connection_flush(link);
}

void manager_ended(relay&, const std::shared_ptr<connection>&) {}
