// text.h - escaping for URLs, HTML and JSON, and the flat JSON objects that devices send.
#pragma once

#include <charconv>
#include <map>
#include <optional>
#include <string>
#include <string_view>

std::string percent_encode(std::string_view text);
std::string percent_decode(std::string_view text);  // a broken escape stays as it is
std::string html_escape(std::string_view text);
std::string json_quote(std::string_view text);  // in quotes; bytes beyond ASCII as Latin-1

std::string lower_text(std::string_view text);     // ASCII
std::string base64_decode(std::string_view text);  // up to what does not belong there

using text_pairs = std::map<std::string, std::string>;

// One JSON object whose values are strings, numbers or words; an escaped character stands for
// itself. Nothing on anything else: a device has no reason to send more.
std::optional<text_pairs> json_flat_object(std::string_view text);

std::string json_object(const text_pairs& pairs);  // {"name":"value",...}

bool same_word(std::string_view text, std::string_view lower_word);  // in whatever case

// The whole text as a decimal number that fits the type, or nothing.
template <typename T>
std::optional<T> number_parse(std::string_view text) {
    T value{};
    const auto [end, failed] = std::from_chars(text.data(), text.data() + text.size(), value);
    const bool whole = failed == std::errc{} && end == text.data() + text.size();
    return whole ? std::optional<T>(value) : std::nullopt;
}
