#include "http/rewrite.h"

#include <algorithm>
#include <array>

#include "base/text.h"

namespace {

constexpr std::string_view FORWARDED[] = {
    "x-forwarded-for",    "x-forwarded-proto", "x-forwarded-host", "x-forwarded-port",
    "x-forwarded-server", "forwarded",         "x-real-ip"};
constexpr std::string_view REFERENCES[] = {"location", "content-location"};
constexpr std::string_view LOOPBACK[] = {"localhost", "127.0.0.1"};

bool is_one_of(const http_field& field, auto& names) {
    return std::ranges::any_of(names, [&](std::string_view name) { return field.is(name); });
}

bool same_host(std::string_view one, std::string_view other) {
    return std::ranges::equal(
        one, other, {}, [](unsigned char c) { return tolower(c); },
        [](unsigned char c) { return tolower(c); });
}

// "name:port" in its parts; the port is empty when there is none.
std::array<std::string_view, 2> host_split(std::string_view host) {
    const size_t colon = host.rfind(':');
    const bool has_port = colon != host.npos && host.find(']', colon) == host.npos;
    return has_port ? std::array{host.substr(0, colon), host.substr(colon + 1)}
                    : std::array{host, std::string_view()};
}

// A reference with a host: its parts, or an empty host.
struct absolute {
    std::string_view scheme, host, rest;
};

absolute absolute_split(std::string_view reference) {
    const size_t slashes = reference.find("//");
    const bool fits = slashes == 0 || (slashes != reference.npos && reference[slashes - 1] == ':' &&
                                       reference.find_first_of("/?#") == slashes);
    if (!fits) {
        return {{}, {}, reference};
    }
    const std::string_view behind = reference.substr(slashes + 2);
    const size_t end = std::min(behind.find_first_of("/?#"), behind.size());
    return {reference.substr(0, slashes - std::min<size_t>(slashes, 1)), behind.substr(0, end),
            behind.substr(end)};
}

// Whether the service means itself. It may know itself by the name that the user has for it, with
// its own port behind that (web servers put it into redirects), by the name that it has been told,
// or by the one that its machine has for itself.
bool is_service(const http_view& view, const absolute& place) {
    if (!place.scheme.empty() && !same_word(place.scheme, "http") &&
        !same_host(place.scheme, view.scheme)) {
        return false;
    }
    const auto parts = host_split(place.host);  // clang 14 lets no lambda see a binding
    const std::string_view name = parts[0], port = parts[1];
    const bool own_port = port == std::to_string(view.port) || (port.empty() && view.port == 80);
    const auto [user_name, user_port] = host_split(view.user_host);
    if (same_host(name, user_name)) {  // a name of its own is nobody else's, whatever the port
        return view.prefix.empty() || port == user_port || own_port;
    }
    const bool local = same_host(name, host_split(view.service_host)[0]) ||
                       std::ranges::any_of(LOOPBACK, [name](std::string_view known) {
                           return same_word(name, known);
                       });
    return local && own_port;
}

// Without the device's parameters, which the service has taken for the user's.
std::string without_parameters(const http_view& view, std::string_view reference) {
    std::string text(reference);
    const size_t at = view.parameters.empty() ? text.npos : text.find(view.parameters);
    if (at == text.npos || at == 0 || (text[at - 1] != '?' && text[at - 1] != '&')) {
        return text;
    }
    const size_t end = at + view.parameters.size();
    const bool more = end < text.size() && text[end] == '&';
    return text.erase(more ? at : at - 1, view.parameters.size() + 1);
}

std::string reference_for_user(const http_view& view, std::string_view reference) {
    std::string text = without_parameters(view, reference);
    const absolute place = absolute_split(text);
    if (place.host.empty()) {
        return (text.starts_with('/') ? view.prefix : "") + text;
    }
    if (!is_service(view, place)) {
        return text;
    }
    const std::string rest = (place.rest.starts_with('/') ? "" : "/") + std::string(place.rest);
    return view.prefix.empty() ? view.scheme + "://" + view.user_host + rest : view.prefix + rest;
}

// "5; url=/next": the reference may be in quotes and may come without its name.
std::string refresh_for_user(const http_view& view, std::string_view value) {
    constexpr std::string_view NAME = "url";
    const auto skip = [value](size_t at, std::string_view what) {
        return std::min(value.find_first_not_of(what, at), value.size());
    };
    size_t at = skip(std::min(value.find_first_of(";,"), value.size()), "; ,\t");
    if (same_word(value.substr(at, NAME.size()), NAME)) {
        const size_t equals = skip(at + NAME.size(), " \t");
        at = value.substr(equals).starts_with('=') ? skip(equals + 1, " \t") : at;
    }
    const bool quoted = at < value.size() && (value[at] == '"' || value[at] == '\'');
    const size_t from = at + (quoted ? 1 : 0);
    const size_t end = quoted ? std::min(value.find(value[at], from), value.size()) : value.size();
    return std::string(value.substr(0, from)) +
           (from < end ? reference_for_user(view, value.substr(from, end - from)) : "") +
           std::string(value.substr(end));
}

// A cookie is for the service alone: below its prefix, and for no name above its own, where it
// would reach other services as well.
std::string cookie_for_user(const http_view& view, std::string_view value) {
    std::string cookie;
    while (!value.empty()) {
        const size_t end = std::min(value.find(';'), value.size());
        const std::string_view part = value.substr(0, end);
        value.remove_prefix(std::min(end + 1, value.size()));
        const size_t from = std::min(part.find_first_not_of(" \t"), part.size());
        const size_t equals = std::min(part.find('='), part.size());
        const size_t name_end = part.substr(0, equals).find_last_not_of(" \t") + 1;
        const std::string_view name = part.substr(from, std::max(from, name_end) - from);
        const bool attribute = !cookie.empty();
        if (attribute && same_word(name, "domain")) {
            continue;
        }
        cookie.append(attribute ? ";" : "").append(part);
        const size_t path = part.find_first_not_of(" \t", equals + 1);
        if (attribute && same_word(name, "path") && path != part.npos && part[path] == '/') {
            cookie.insert(cookie.size() - (part.size() - path), view.prefix);
        }
    }
    return cookie;
}

std::string line_of(std::string_view name, std::string_view value) {
    return std::string(name).append(": ").append(value).append("\r\n");
}

}  // namespace

std::string rewrite_field(const http_view& view, const http_field& field) {
    if (is_one_of(field, FORWARDED)) {
        return {};
    }
    if (view.service_host != view.user_host) {
        const absolute place = absolute_split(field.value);
        const bool is_own = same_host(place.host, view.user_host);
        if (field.is("host")) {
            return line_of(field.name, view.service_host);
        }
        if (is_own && field.is("origin")) {  // which services compare with their Host
            return line_of(field.name, "http://" + view.service_host);
        }
        if (is_own && field.is("referer")) {
            const size_t own = place.rest.starts_with(view.prefix + "/") ? view.prefix.size() : 0;
            return line_of(field.name,
                           ("http://" + view.service_host).append(place.rest.substr(own)));
        }
    }
    return std::string(field.line).append("\r\n");
}

std::string rewrite_forwarded(const http_view& view) {
    return line_of("X-Forwarded-For", view.address) + line_of("X-Forwarded-Proto", view.scheme) +
           (view.user_host.empty() ? "" : line_of("X-Forwarded-Host", view.user_host));
}

std::string rewrite_response(const http_view& view, std::string_view head) {
    std::string rewritten(http_line_take(head));
    rewritten += "\r\n";
    while (!head.empty()) {
        const http_field field = http_field_take(head);
        if (is_one_of(field, REFERENCES)) {
            rewritten += line_of(field.name, reference_for_user(view, field.value));
        } else if (field.is("refresh")) {
            rewritten += line_of(field.name, refresh_for_user(view, field.value));
        } else if (field.is("set-cookie")) {
            rewritten += line_of(field.name, cookie_for_user(view, field.value));
        } else {
            rewritten.append(field.line).append("\r\n");
        }
    }
    return rewritten;
}
