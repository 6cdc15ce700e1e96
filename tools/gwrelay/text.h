// text.h - escaping for URLs, HTML and JSON, and the flat JSON objects that devices send.
#pragma once

#include <charconv>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

std::string percent_encode(std::string_view text);
std::string percent_decode(std::string_view text);  // a broken escape stays as it is
std::string html_escape(std::string_view text);
std::string json_quote(std::string_view text);  // in quotes; bytes beyond ASCII as Latin-1

using text_pairs = std::vector<std::pair<std::string, std::string>>;

// One JSON object whose values are strings, numbers or words, in their order; an escaped character
// stands for itself. Nothing on anything else: a device has no reason to send more.
std::optional<text_pairs> json_flat_object(std::string_view text);

// The value of a key, or null.
const std::string* pairs_find(const text_pairs& pairs, std::string_view key);
bool equal_no_case(std::string_view a, std::string_view b);

// The whole text as a decimal number that fits the type, or nothing.
template <typename T>
std::optional<T> number_parse(std::string_view text) {
    T value{};
    const auto [end, failed] = std::from_chars(text.data(), text.data() + text.size(), value);
    const bool whole = failed == std::errc{} && end == text.data() + text.size();
    return whole ? std::optional<T>(value) : std::nullopt;
}
