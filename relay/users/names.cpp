#include "users/names.h"

namespace {

constexpr char WEB_PAGE[] = "http_port";  // as devices announce it

}  // namespace

std::string host_name(std::string_view host) {
    const size_t bracket = host.rfind(']');
    host = host.substr(0, host.find(':', bracket == host.npos ? 0 : bracket));
    host.remove_suffix(host.ends_with('.') ? 1 : 0);
    return lower_text(host);
}

std::optional<named> names_find(const relay& hub, std::string_view host) {
    const std::string name = host_name(host), end = "." + hub.settings.domain;
    if (!name.ends_with(end)) {
        return std::nullopt;
    }
    const auto [label, port] =
        label_split(std::string_view(name).substr(0, name.size() - end.size()));
    const auto found = hub.labels.find(label);
    if (found == hub.labels.end()) {
        return named{};
    }
    const auto& announced = found->second->ports;
    const auto page = announced.find(WEB_PAGE);
    return named{found->second, port                      ? *port
                                : page != announced.end() ? page->second
                                                          : uint16_t{0}};
}
