#include "text.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>

namespace {

constexpr char REPLACEMENT[] = "\xef\xbf\xbd";  // U+FFFD, for bytes that are no UTF-8

int hex_digit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    const int lower = tolower(static_cast<unsigned char>(c));
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

// The length of the UTF-8 sequence at the front, 0 when there is none.
size_t utf8_length(std::string_view text) {
    const auto lead = static_cast<unsigned char>(text[0]);
    const size_t length = lead < 0x80 ? 1 : lead < 0xc2 ? 0 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
    if (lead > 0xf4 || length > text.size()) {
        return 0;
    }
    for (size_t i = 1; i < length; ++i) {
        if ((static_cast<unsigned char>(text[i]) & 0xc0) != 0x80) {
            return 0;
        }
    }
    if (length >= 3) {  // no overlong forms, no surrogates, nothing above U+10FFFF
        const auto second = static_cast<unsigned char>(text[1]);
        if ((lead == 0xe0 && second < 0xa0) || (lead == 0xed && second > 0x9f) ||
            (lead == 0xf0 && second < 0x90) || (lead == 0xf4 && second > 0x8f)) {
            return 0;
        }
    }
    return length;
}

void utf8_append(std::string& to, uint32_t code) {
    if (code < 0x80) {
        to += static_cast<char>(code);
    } else if (code < 0x800) {
        to += static_cast<char>(0xc0 | code >> 6);
        to += static_cast<char>(0x80 | (code & 0x3f));
    } else if (code >= 0xd800 && code <= 0xdfff) {
        to += REPLACEMENT;  // half of a surrogate pair; a device's texts have no use for whole ones
    } else {
        to += static_cast<char>(0xe0 | code >> 12);
        to += static_cast<char>(0x80 | (code >> 6 & 0x3f));
        to += static_cast<char>(0x80 | (code & 0x3f));
    }
}

// Reads from the front of `rest`; every function answers false when something else is there.
struct json_reader {
    std::string_view rest;

    void skip_blanks() {
        const size_t used = std::min(rest.find_first_not_of(" \t\r\n"), rest.size());
        rest.remove_prefix(used);
    }

    bool character(char expected) {
        skip_blanks();
        if (rest.empty() || rest[0] != expected) {
            return false;
        }
        rest.remove_prefix(1);
        return true;
    }

    bool escape(std::string& to) {
        if (rest.empty()) {
            return false;
        }
        constexpr std::string_view NAMED = "\"\\/bfnrt";
        constexpr std::string_view MEANT = "\"\\/\b\f\n\r\t";
        const char c = rest[0];
        rest.remove_prefix(1);
        if (const size_t at = NAMED.find(c); at != std::string_view::npos) {
            to += MEANT[at];
            return true;
        }
        if (c != 'u' || rest.size() < 4) {
            return false;
        }
        uint32_t code = 0;
        for (const char digit : rest.substr(0, 4)) {
            if (hex_digit(digit) < 0) {
                return false;
            }
            code = code * 16 + static_cast<uint32_t>(hex_digit(digit));
        }
        rest.remove_prefix(4);
        utf8_append(to, code);
        return true;
    }

    bool string(std::string& to) {
        if (!character('"')) {
            return false;
        }
        while (!rest.empty() && rest[0] != '"') {
            const char c = rest[0];
            rest.remove_prefix(1);
            if (c != '\\') {
                to += c;
            } else if (!escape(to)) {
                return false;
            }
        }
        return character('"');
    }

    bool value(std::string& to) {
        skip_blanks();
        if (!rest.empty() && rest[0] == '"') {
            return string(to);
        }
        const auto is_word = [](unsigned char c) {
            return isalnum(c) != 0 || c == '-' || c == '+' || c == '.';
        };
        while (!rest.empty() && is_word(static_cast<unsigned char>(rest[0]))) {
            to += rest[0];
            rest.remove_prefix(1);
        }
        return !to.empty();
    }
};

}  // namespace

std::string percent_encode(std::string_view text) {
    std::string encoded;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x80 && (isalnum(byte) != 0 || std::string_view("-._~").find(c) != text.npos)) {
            encoded += c;
        } else {
            char escaped[4];
            snprintf(escaped, sizeof escaped, "%%%02X", byte);
            encoded += escaped;
        }
    }
    return encoded;
}

std::string percent_decode(std::string_view text) {
    std::string decoded;
    for (size_t i = 0; i < text.size(); ++i) {
        const bool escaped = text[i] == '%' && i + 2 < text.size() && hex_digit(text[i + 1]) >= 0 &&
                             hex_digit(text[i + 2]) >= 0;
        if (escaped) {
            decoded += static_cast<char>(hex_digit(text[i + 1]) * 16 + hex_digit(text[i + 2]));
            i += 2;
        } else {
            decoded += text[i];
        }
    }
    return decoded;
}

std::string html_escape(std::string_view text) {
    std::string escaped;
    for (const char c : text) {
        switch (c) {
            case '&': escaped += "&amp;"; break;
            case '<': escaped += "&lt;"; break;
            case '>': escaped += "&gt;"; break;
            case '"': escaped += "&quot;"; break;
            case '\'': escaped += "&#39;"; break;
            default: escaped += c;
        }
    }
    return escaped;
}

std::string json_quote(std::string_view text) {
    std::string quoted = "\"";
    while (!text.empty()) {
        const auto byte = static_cast<unsigned char>(text[0]);
        const size_t length = utf8_length(text);
        if (byte == '"' || byte == '\\') {
            quoted.append({'\\', text[0]});
        } else if (byte < ' ') {
            char escaped[8];
            snprintf(escaped, sizeof escaped, "\\u%04x", byte);
            quoted += escaped;
        } else if (length == 0) {
            quoted += REPLACEMENT;
        } else {
            quoted += text.substr(0, length);
        }
        text.remove_prefix(std::max<size_t>(length, 1));
    }
    return quoted + '"';
}

std::optional<text_pairs> json_flat_object(std::string_view text) {
    json_reader reader{text};
    text_pairs pairs;
    bool more = reader.character('{');
    if (!more) {
        return std::nullopt;
    }
    more = !reader.character('}');
    while (more) {
        std::string key, value;
        if (!reader.string(key) || !reader.character(':') || !reader.value(value)) {
            return std::nullopt;
        }
        pairs.emplace_back(std::move(key), std::move(value));
        more = reader.character(',');
        if (!more && !reader.character('}')) {
            return std::nullopt;
        }
    }
    reader.skip_blanks();
    if (!reader.rest.empty()) {
        return std::nullopt;
    }
    return pairs;
}

const std::string* pairs_find(const text_pairs& pairs, std::string_view key) {
    for (const auto& [name, value] : pairs) {
        if (name == key) {
            return &value;
        }
    }
    return nullptr;
}

bool equal_no_case(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
        return tolower(static_cast<unsigned char>(x)) == tolower(static_cast<unsigned char>(y));
    });
}
