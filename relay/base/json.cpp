#include "base/json.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace {

// Takes what stands in front of the mark, and the mark. All of it, where there is none.
std::string_view take_up_to(std::string_view& text, std::string_view mark) {
    const size_t at = std::min(text.find(mark), text.size());
    const std::string_view front = text.substr(0, at);
    text.remove_prefix(std::min(at + mark.size(), text.size()));
    return front;
}

// {"name":"value","name":1} whose texts may have quotes and anything else in them.
std::optional<text_pairs> unescaped_pairs(std::string_view text) {
    if (text.size() < 3 || !text.starts_with("{\"") || !text.ends_with('}')) {
        return std::nullopt;
    }
    text = text.substr(2, text.size() - 3);
    text_pairs pairs;
    while (!text.empty()) {
        const std::string name(take_up_to(text, "\":"));
        const bool is_text = text.starts_with('"');
        text.remove_prefix(is_text ? 1 : 0);
        std::string_view value = take_up_to(text, is_text ? "\",\"" : ",\"");
        value.remove_suffix(is_text && text.empty() && value.ends_with('"') ? 1 : 0);
        if (!is_text && value.empty()) {
            return std::nullopt;
        }
        pairs[name] = value;
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
