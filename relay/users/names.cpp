#include "users/names.h"

#include <algorithm>

namespace {

constexpr char WEB_PAGE[] = "http_port";  // as devices announce it

std::string lower_name(std::string_view host) {
    host = host.substr(0, host.find(':'));
    host.remove_suffix(host.ends_with('.') ? 1 : 0);
    std::string name(host);
    std::ranges::transform(name, name.begin(), [](unsigned char c) { return tolower(c); });
    return name;
}

}  // namespace

std::optional<named> names_find(const relay& hub, std::string_view host) {
    const std::string name = lower_name(host), end = "." + hub.settings.domain;
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
