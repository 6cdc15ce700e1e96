#include "access/accounts.h"

#include <algorithm>

#include "access/lines.h"
#include "base/text.h"

namespace {

constexpr size_t NAME_MAX_SIZE = 64, HASH_SIZE = 60;
constexpr std::string_view BETWEEN = ", \t", ADMIN = "admin", ANY = "*";

bool name_fits(std::string_view name) {
    return !name.empty() && name.size() <= NAME_MAX_SIZE &&
           std::ranges::all_of(name, [](unsigned char c) { return c > ' ' && c != 0x7f; });
}

bool hash_fits(std::string_view hash) {
    const bool bcrypt = hash.size() == HASH_SIZE && hash.starts_with("$2") && hash[3] == '$' &&
                        std::string_view("aby").find(hash[2]) != std::string_view::npos;
    return bcrypt || hash == ANY;
}

// "box", "box/80", "*" or "*/80".
std::optional<grant> grant_parse(std::string_view word) {
    const size_t slash = word.find('/');
    const std::string_view device = word.substr(0, slash);
    if (device.empty()) {
        return std::nullopt;
    }
    grant made{device == ANY ? "" : percent_decode(device), 0};
    if (slash != word.npos) {
        const auto port = number_parse<uint16_t>(word.substr(slash + 1));
        if (!port || *port == 0) {
            return std::nullopt;
        }
        made.port = *port;
    }
    return made;
}

// Takes the next field, up to a colon, off the front of the line.
std::string_view field_take(std::string_view& line) {
    const size_t end = std::min(line.find(':'), line.size());
    const std::string_view field = line.substr(0, end);
    line.remove_prefix(std::min(end + 1, line.size()));
    return field;
}

// Null, with the reason.
std::shared_ptr<account> line_parse(std::string_view line, std::string& error) {
    auto made = std::make_shared<account>();
    made->name = field_take(line);
    const std::string_view hash = field_take(line);
    if (!name_fits(made->name) || !hash_fits(hash)) {
        error = "a line is NAME:HASH:DEVICES, with a hash as \"htpasswd -B\" writes it";
        return nullptr;
    }
    made->hash = hash == ANY ? "" : hash;
    for (std::string_view word = word_take(line, BETWEEN); !word.empty();
         word = word_take(line, BETWEEN)) {
        const auto granted = grant_parse(word);
        if (!granted) {
            error = "no device and port: " + std::string(word);
            return nullptr;
        }
        made->admin = made->admin || word == ADMIN;
        made->grants.push_back(*granted);
    }
    return made;
}

}  // namespace

bool account::may_reach(std::string_view device, uint16_t port, bool announced) const {
    return admin || std::ranges::any_of(grants, [&](const grant& each) {
               return (each.device.empty() || each.device == device) &&
                      (each.port == port || (each.port == 0 && announced));
           });
}

std::optional<account_table> accounts_read(const std::string& path, std::string& error) {
    account_table table;
    const bool read = lines_read(path, error, [&](std::string_view line, std::string& wrong) {
        const auto made = line_parse(line, wrong);
        if (made != nullptr && !table.emplace(made->name, made).second) {
            wrong = "there is another " + made->name;
        }
    });
    if (read && table.empty()) {
        error = path + ": there is nobody in it";
    }
    return read && !table.empty() ? std::optional(std::move(table)) : std::nullopt;
}
