#include "base/label.h"

#include <algorithm>
#include <cctype>

#include "base/text.h"

namespace {

constexpr std::string_view BETWEEN = "--";  // in no label that an id has by itself
constexpr size_t LABEL_MAX = 63, PORT_DIGITS = 5;
constexpr size_t ID_LABEL_MAX = LABEL_MAX - BETWEEN.size() - PORT_DIGITS;
constexpr std::string_view DIGITS_OF_32 = "abcdefghijklmnopqrstuvwxyz234567";
constexpr unsigned BITS = 5, LETTER_BITS = 1, OTHER_BITS = 8;

bool is_lower(char c) { return c >= 'a' && c <= 'z'; }
bool is_upper(char c) { return c >= 'A' && c <= 'Z'; }
bool is_digit(char c) { return c >= '0' && c <= '9'; }

// Browsers take what begins with "xn--" for a name in another alphabet.
bool begins_badly(std::string_view visible) {
    return visible.starts_with('-') || visible == "xn" || visible.starts_with("xn-");
}

bool is_label(std::string_view id) {
    return std::ranges::all_of(id, [](char c) { return is_lower(c) || is_digit(c) || c == '-'; }) &&
           id.find(BETWEEN) == id.npos && !id.ends_with('-') && !begins_badly(id);
}

// Bits as digits of 32, the first bit the highest.
struct bit_writer {
    std::string digits;
    unsigned value = 0, count = 0;

    void add(unsigned what, unsigned in_bits) {
        value = value << in_bits | what;
        for (count += in_bits; count >= BITS; count -= BITS) {
            digits += DIGITS_OF_32[value >> (count - BITS) & (DIGITS_OF_32.size() - 1)];
        }
        value &= (1U << count) - 1;
    }
    void fill() {
        if (count > 0) {
            add(0, BITS - count);
        }
    }
};

}  // namespace

std::string label_of(std::string_view id) {
    if (is_label(id)) {
        return std::string(id);
    }
    std::string visible;
    bit_writer hidden;
    for (const char c : id) {
        const auto byte = static_cast<unsigned char>(c);
        if (is_lower(c) || is_upper(c)) {
            hidden.add(is_upper(c) ? 1 : 0, LETTER_BITS);
            visible += static_cast<char>(tolower(byte));
        } else if (is_digit(c)) {
            visible += c;
        } else {
            hidden.add(byte, OTHER_BITS);
            visible += '-';
        }
    }
    hidden.fill();
    // The letter tells it from a port, and whether the first character is one too many.
    const bool prefixed = begins_badly(visible);
    const std::string label = (prefixed ? "x" : "") + visible + std::string(BETWEEN) +
                              (prefixed ? "y" : "x") + hidden.digits;
    return label.size() <= ID_LABEL_MAX ? label : "";
}

std::string label_with_port(std::string_view label, uint16_t port) {
    return std::string(label).append(BETWEEN).append(std::to_string(port));
}

label_parts label_split(std::string_view name) {
    const size_t at = name.rfind(BETWEEN);
    const std::string_view digits = at == name.npos ? "" : name.substr(at + BETWEEN.size());
    const auto port = number_parse<uint16_t>(digits);
    return port && *port > 0 && !digits.starts_with('0') ? label_parts{name.substr(0, at), port}
                                                         : label_parts{name, {}};
}
