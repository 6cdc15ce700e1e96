// option_table.h - every option by its name, for the command line and the configuration file.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "base/options.h"

// What a value does to the options. All three know which of them it is about.
struct option_effect {
    bool (*set)(options& to, const std::string& value);  // false: the value is no good
    bool (*same)(const options& one, const options& other);
    void (*copy)(options& to, const options& from);
};

enum class option_time : uint8_t { ANY, START };  // when it can be set: what is live, or at first

struct option_row {
    const char *name, *value, *help;  // value: what its argument is called; null: it has none
    option_effect effect;
    option_time time = option_time::ANY;
};

struct option_group {
    const char* title;
    std::span<const option_row> rows;
};

std::span<const option_group> option_groups();
const option_row* option_find(std::string_view name);  // null: there is none
