#include "access/boxes.h"

#include <algorithm>

#include "access/lines.h"
#include "base/text.h"

namespace {

constexpr size_t ID_SIZE_MAX = 47, NAME_SIZE_MAX = 47, ID_WORDS = 4;
constexpr std::string_view BLANKS = " \t", MAC = "mac=", FROM = "from=", SAME = "same-address";

bool is_visible(std::string_view text, size_t max) {
    return !text.empty() && text.size() <= max &&
           std::ranges::all_of(text, [](unsigned char c) { return c > ' ' && c != 0x7f; });
}

// Empty, or what is wrong with it.
std::string condition_take(known_box& box, std::string_view word) {
    if (word.starts_with(MAC)) {
        box.mac = lower_text(word.substr(MAC.size()));
        return {};
    }
    if (word.starts_with(FROM)) {
        const auto ranges = ranges_parse(word.substr(FROM.size()));
        box.from = ranges.value_or(std::vector<address_range>());
        return box.from.empty() ? "no address or range: " + std::string(word) : "";
    }
    box.same_address = true;
    return word == SAME ? "" : "unknown word: " + std::string(word);
}

std::string line_take(box_table& table, std::string_view line) {
    known_box box{.name = std::string(word_take(line, BLANKS)), .mac = {}, .from = {}};
    const std::string id(word_take(line, BLANKS));
    if (!is_visible(box.name, NAME_SIZE_MAX) || !is_visible(id, ID_SIZE_MAX)) {
        return "a line is NAME ID, neither longer than 47 characters";
    }
    std::string wrong;
    for (std::string_view word = word_take(line, BLANKS); !word.empty() && wrong.empty();
         word = word_take(line, BLANKS)) {
        wrong = condition_take(box, word);
    }
    const bool taken = std::ranges::any_of(
        table, [&box](const auto& each) { return each.second.name == box.name; });
    if (taken || table.contains(id)) {
        wrong = "this name or id is there already";
    }
    table.emplace(id, std::move(box));
    return wrong;
}

}  // namespace

std::optional<box_table> boxes_read(const std::string& path, std::string& error) {
    box_table table;
    const bool read = lines_read(path, error, [&table](std::string_view line, std::string& wrong) {
        wrong = line_take(table, line);
    });
    return read ? std::optional(std::move(table)) : std::nullopt;
}

std::string box_id_make() { return random_hex(ID_WORDS); }

std::optional<known_box> boxes_admit(const std::optional<box_table>& boxes, bool open,
                                     const std::string& id, const std::string& mac,
                                     const std::string& address, std::string& why) {
    const auto found = boxes ? boxes->find(id) : box_table::const_iterator{};
    if (!boxes || found == boxes->end()) {
        const bool is_name = boxes && std::ranges::any_of(*boxes, [&id](const auto& each) {
                                 return each.second.name == id;
                             });
        why = is_name ? "its id is the name of another one" : "the boxes file does not have it";
        return (!boxes || open) && !is_name
                   ? std::optional(known_box{.name = id, .mac = {}, .from = {}})
                   : std::nullopt;
    }
    const known_box& box = found->second;
    if (!box.mac.empty() && lower_text(mac) != box.mac) {
        why = "it has another MAC than " + box.name;
        return std::nullopt;
    }
    if (!box.from.empty() && !ranges_have(box.from, address)) {
        why = "it does not come from where " + box.name + " is";
        return std::nullopt;
    }
    return box;
}
