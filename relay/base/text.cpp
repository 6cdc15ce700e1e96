#include "base/text.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <random>

namespace {

std::string formatted(const char* format, char c) {
    char text[8];
    snprintf(text, sizeof text, format, static_cast<unsigned char>(c));
    return text;
}

int base64_digit(char c) {
    constexpr std::string_view DIGITS =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const size_t at = DIGITS.find(c);
    return at == DIGITS.npos ? -1 : static_cast<int>(at);
}

}  // namespace

std::string lower_text(std::string_view text) {
    std::string lower(text);
    std::ranges::transform(lower, lower.begin(), [](unsigned char c) { return tolower(c); });
    return lower;
}

std::string base64_decode(std::string_view text) {
    constexpr unsigned DIGIT_BITS = 6, BYTE_BITS = 8;
    std::string bytes;
    unsigned value = 0, bits = 0;
    for (const char c : text) {
        const int digit = base64_digit(c);
        if (digit < 0) {
            break;
        }
        value = value << DIGIT_BITS | static_cast<unsigned>(digit);
        bits += DIGIT_BITS;
        if (bits >= BYTE_BITS) {
            bits -= BYTE_BITS;
            bytes += static_cast<char>(value >> bits & 0xff);
        }
    }
    return bytes;
}

std::string percent_encode(std::string_view text) {
    std::string encoded;
    for (const char c : text) {
        const bool plain = isalnum(static_cast<unsigned char>(c)) != 0 || c == '-' || c == '.' ||
                           c == '_' || c == '~';
        encoded += plain ? std::string(1, c) : formatted("%%%02X", c);
    }
    return encoded;
}

std::string percent_decode(std::string_view text) {
    std::string decoded;
    for (size_t i = 0; i < text.size(); ++i) {
        const std::string_view digits = text.substr(i + 1, text[i] == '%' ? 2 : 0);
        unsigned char byte = 0;
        const auto [end, failed] =
            std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
        const bool escaped = digits.size() == 2 && end == digits.data() + 2;
        decoded += escaped ? static_cast<char>(byte) : text[i];
        i += escaped ? 2 : 0;
    }
    return decoded;
}

std::string html_escape(std::string_view text) {
    std::string escaped;
    for (const char c : text) {
        const bool special = std::string_view("&<>\"'").find(c) != std::string_view::npos;
        escaped += special ? formatted("&#%d;", c) : std::string(1, c);
    }
    return escaped;
}

std::string random_hex(size_t words) {
    std::random_device random;
    std::string hex;
    for (size_t word = 0; word < words; ++word) {
        char text[9];
        snprintf(text, sizeof text, "%08x", random());
        hex += text;
    }
    return hex;
}

bool same_word(std::string_view text, std::string_view lower_word) {
    return std::ranges::equal(
        text, lower_word, {}, [](unsigned char c) { return tolower(c); },
        [](unsigned char c) { return c; });
}
