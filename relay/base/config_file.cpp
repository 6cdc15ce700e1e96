#include "base/config_file.h"

#include <toml++/toml.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>

namespace {

std::string place(const std::string& path, size_t line) {
    return path + ":" + std::to_string(line) + ": ";
}

// As it would be on the command line. Empty for what no option is: a table, a list, a date.
std::string value_text(const toml::node& node) {
    if (const auto number = node.value_exact<double>()) {
        char text[32];
        const auto [end, failed] = std::to_chars(text, text + sizeof text, *number);
        return {text, failed == std::errc{} ? end : text};
    }
    if (const auto number = node.value_exact<int64_t>()) {
        return std::to_string(*number);
    }
    if (const auto yes = node.value_exact<bool>()) {
        return *yes ? "true" : "false";
    }
    return node.value_exact<std::string>().value_or("");
}

}  // namespace

std::optional<std::vector<config_entry>> config_read(const std::string& path, std::string& error) {
    std::ifstream file(path);
    file.peek();  // a folder opens too
    if (file.bad() || !file.is_open()) {
        error = path + ": " + strerror(errno);
        return std::nullopt;
    }
    std::vector<config_entry> entries;
    try {
        for (const auto& [key, node] : toml::parse(file, path)) {
            entries.push_back({std::string(key.str()), value_text(node), key.source().begin.line,
                               node.is_boolean()});
        }
    } catch (const toml::parse_error& failed) {
        error = place(path, failed.source().begin.line) + std::string(failed.description());
        return std::nullopt;
    }
    std::ranges::sort(entries, {}, &config_entry::line);
    return entries;
}
