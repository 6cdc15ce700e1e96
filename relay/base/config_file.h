// config_file.h - the configuration file: TOML, where each key is an option's long name.
#pragma once

#include <optional>
#include <string>
#include <vector>

struct config_entry {
    std::string name, value;
    size_t line;
    bool is_flag;  // true or false
};

// In the order of their lines. Nothing, with the reason in `error`, when the file cannot be read
// or is no TOML.
std::optional<std::vector<config_entry>> config_read(const std::string& path, std::string& error);
