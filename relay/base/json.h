// json.h - the JSON that the relay tells, and what devices send as such.
#pragma once

#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

using json = nlohmann::ordered_json;
using text_pairs = std::map<std::string, std::string>;

// Bytes of any kind, those beyond ASCII as the characters of these numbers (Latin-1): so two that
// differ stay two.
std::string json_text(std::string_view bytes);
// On one line, of printable ASCII.
std::string json_line(const json& value);
// An object of texts, numbers and words, all as texts. Nothing on anything else: a device has no
// reason to send more. It puts its texts between quotes as they are, so what is no JSON for that
// reason is still taken.
std::optional<text_pairs> json_pairs(std::string_view text);
