// text.h - escaping for URLs, HTML and JSON, and the flat JSON objects that devices send.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

std::string percent_encode(std::string_view text);
std::string percent_decode(std::string_view text);  // a broken escape stays as it is
std::string html_escape(std::string_view text);
std::string json_quote(std::string_view text);  // in quotes; valid UTF-8 whatever goes in

using text_pairs = std::vector<std::pair<std::string, std::string>>;

// One JSON object whose values are strings, numbers or words, in their order. Nothing on anything
// else: a device has no reason to send more.
std::optional<text_pairs> json_flat_object(std::string_view text);

// The value of a key, or null.
const std::string* pairs_find(const text_pairs& pairs, std::string_view key);
bool equal_no_case(std::string_view a, std::string_view b);
