// text.h - escaping for URLs and HTML, and what else texts need.
#pragma once

#include <charconv>
#include <optional>
#include <string>
#include <string_view>

std::string percent_encode(std::string_view text);
std::string percent_decode(std::string_view text);  // a broken escape stays as it is
std::string html_escape(std::string_view text);

std::string lower_text(std::string_view text);     // ASCII
std::string base64_decode(std::string_view text);  // up to what does not belong there

// Eight digits a word, by the kernel's random numbers: what nobody guesses has four or more.
std::string random_hex(size_t words);

bool same_word(std::string_view text, std::string_view lower_word);  // in whatever case

// The whole text as a decimal number that fits the type, or nothing.
template <typename T>
std::optional<T> number_parse(std::string_view text) {
    T value{};
    const auto [end, failed] = std::from_chars(text.data(), text.data() + text.size(), value);
    const bool whole = failed == std::errc{} && end == text.data() + text.size();
    return whole ? std::optional<T>(value) : std::nullopt;
}
