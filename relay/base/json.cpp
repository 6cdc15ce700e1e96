#include "base/json.h"

#include <nlohmann/json.hpp>

namespace {

// {"name":"value","name":"value"} whose texts may have quotes and anything else in them.
std::optional<text_pairs> unescaped_pairs(std::string_view text) {
    constexpr std::string_view BEGIN = "{\"", IS = "\":\"", NEXT = "\",\"", END = "\"}";
    if (text.size() < BEGIN.size() + END.size() || !text.starts_with(BEGIN) ||
        !text.ends_with(END)) {
        return std::nullopt;
    }
    text = text.substr(BEGIN.size(), text.size() - BEGIN.size() - END.size());
    text_pairs pairs;
    for (bool more = true; more;) {
        const size_t is = text.find(IS), next = text.find(NEXT, is);
        if (is == text.npos) {
            return std::nullopt;
        }
        const size_t value = is + IS.size();
        pairs[std::string(text.substr(0, is))] = text.substr(value, next - value);
        more = next != text.npos;
        text.remove_prefix(more ? next + NEXT.size() : text.size());
    }
    return pairs;
}

}  // namespace

std::string json_text(std::string_view bytes) {
    constexpr unsigned char ASCII_END = 0x80, FIRST = 0xc0, SECOND = 0x80, LOW_SIX = 0x3f;
    std::string utf8;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < ASCII_END) {
            utf8 += c;
        } else {
            utf8 += static_cast<char>(FIRST | byte >> 6);
            utf8 += static_cast<char>(SECOND | (byte & LOW_SIX));
        }
    }
    return utf8;
}

std::string json_line(const json& value) {
    return value.dump(-1, ' ', true, json::error_handler_t::replace);
}

std::optional<text_pairs> json_pairs(std::string_view text) {
    const json whole = json::parse(text, nullptr, false);
    if (whole.is_discarded()) {
        return unescaped_pairs(text);
    }
    if (!whole.is_object()) {
        return std::nullopt;
    }
    text_pairs pairs;
    for (const auto& [name, value] : whole.items()) {
        if (value.is_structured()) {
            return std::nullopt;
        }
        pairs[name] = value.is_string() ? value.get<std::string>() : value.dump();
    }
    return pairs;
}
