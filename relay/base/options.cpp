#include "base/options.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>

#include "base/config_file.h"
#include "base/option_table.h"
#include "base/text.h"

namespace {

constexpr char DEFAULT_CONFIG[] = "/etc/gwrelay/gwrelay.toml";
constexpr uint32_t T1_MIN = 2, T1_MAX = 3599, T2_MIN = 3600, T2_MAX = 0x7fffffff;
// The device keeps a host in 64 bytes, and knows IPv4 addresses and names only.
constexpr size_t HOST_MAX = 63;
constexpr size_t HELP_COLUMN = 28;
constexpr char SUMMARY[] =
    "The relay: address manager, control and data connections for devices, and an HTTP front\n"
    "door for users at http://127.0.0.1:8080/ with a page that lists them.\n"
    "http://DEVICE--PORT.localhost:8080/ is a port of a device, and so is /DEVICE/PORT/PATH at "
    "the\n"
    "front door itself; there ?gwrelay-pri=N sets a priority, and\n"
    "POST /DEVICE/report-times?t1=S&t2=S sets its reporting times.";
constexpr char READY[] =
    "Every option but the last group can stand in the configuration file: front-port = 8080.\n\n"
    "\"gwrelay id\" prints a new id for the boxes file.\n\n"
    "Once it listens, gwrelay prints one line on standard output, with --listen-admin and\n"
    "admin=PORT at its end:\n"
    "ready manager=PORT control=PORT data=PORT front=PORT";

struct given {
    const option_row* row;
    std::string value;
};

struct arguments {
    std::vector<given> values;  // in their order
    std::string config;
    bool check_only = false;
};

// "--name=value" as two words, because the parser takes an empty value for none.
std::vector<std::string> words_reversed(int argc, const char* const* argv) {
    std::vector<std::string> words;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        const size_t equals = word.starts_with("--") ? word.find('=') : std::string::npos;
        words.push_back(word.substr(0, equals));
        if (equals != std::string::npos) {
            words.push_back(word.substr(equals + 1));
        }
    }
    std::ranges::reverse(words);
    return words;
}

void add_rows(CLI::App& app, std::vector<given>& to) {
    for (const option_group& group : option_groups()) {
        for (const option_row& row : group.rows) {
            const std::string name = row.name;
            const bool has_short = name == "quiet" || name == "verbose";
            const std::string names =
                (has_short ? "-" + name.substr(0, 1) + "," : "") + "--" + name;
            const auto take = [&to, &row](const std::string& value) {
                to.push_back({&row, value});
            };
            CLI::Option* const added =
                row.value != nullptr ? app.add_option_function<std::string>(names, take, row.help)
                                     : app.add_flag_callback(
                                           names, [take] { take(""); }, row.help);
            added->trigger_on_parse()->group(group.title)->type_name(row.value ? row.value : "");
        }
    }
}

std::optional<arguments> arguments_parse(int argc, const char* const* argv, std::string& error) {
    arguments found;
    CLI::App app(SUMMARY, "gwrelay");
    app.get_formatter()->column_width(HELP_COLUMN);
    app.footer(READY);
    add_rows(app, found.values);
    app.set_help_flag("-h,--help", "show this text")->group("The program");
    app.set_version_flag("--version", "gwrelay " GWRELAY_VERSION, "show the version")
        ->group("The program");
    app.add_option("--config", found.config,
                   std::string("configuration file, TOML; without it ") + DEFAULT_CONFIG +
                       " if that is there")
        ->type_name("FILE")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
        ->group("The program");
    app.add_flag("--check-config", found.check_only, "say whether all of this makes sense, and end")
        ->group("The program");
    try {
        app.parse(words_reversed(argc, argv));
    } catch (const CLI::Success& asked) {
        exit(app.exit(asked));
    } catch (const CLI::ParseError& failed) {
        error = failed.what() + std::string("\ngwrelay: try --help");
        return std::nullopt;
    }
    return found;
}

std::string bad_value(const option_row& row, const std::string& value) {
    return std::string("bad value for --") + row.name + ": " + value;
}

// Empty, or what is wrong with this line of the file.
std::string entry_take(options& to, const config_entry& entry) {
    const option_row* const row = option_find(entry.name);
    if (row == nullptr) {
        return "unknown option: " + entry.name;
    }
    const bool is_flag = row->value == nullptr;
    if (is_flag != entry.is_flag) {
        return is_flag ? entry.name + " is true or false" : bad_value(*row, entry.value);
    }
    const bool takes = !is_flag || entry.value == "true";
    return !takes || row->effect.set(to, entry.value) ? "" : bad_value(*row, entry.value);
}

bool config_take(options& to, const std::string& path, std::string& error) {
    const auto entries = config_read(path, error);
    if (!entries) {
        return false;
    }
    for (const config_entry& entry : *entries) {
        error = entry_take(to, entry);
        if (!error.empty()) {
            error.insert(0, path + ":" + std::to_string(entry.line) + ": ");
            return false;
        }
    }
    return true;
}

// Whether a device can be told this address: it goes between double quotes and before a colon.
bool announce_fits(const std::string& address) {
    return !address.empty() && address.size() <= HOST_MAX && address != "0.0.0.0" &&
           std::ranges::all_of(address, [](unsigned char c) {
               return isalnum(c) != 0 || c == '.' || c == '-' || c == '_';
           });
}

// What has not been set follows from the rest.
bool complete(options& to, std::string& error) {
    const auto instead = [](std::string& text, const std::string& of) {
        text = text.empty() ? of : text;
    };
    instead(to.listen_devices, to.listen);
    instead(to.listen_users, to.listen);
    instead(to.announce, to.listen_devices);
    if (!announce_fits(to.announce)) {
        error = "devices cannot be told the address \"" + to.announce +
                "\": --announce takes an IPv4 address or a name of at most " +
                std::to_string(HOST_MAX) + " characters";
        return false;
    }
    return true;
}

}  // namespace

std::optional<report_times> report_times_parse(std::string_view t1, std::string_view t2) {
    const report_times times{number_parse<uint32_t>(t1).value_or(0),
                             number_parse<uint32_t>(t2).value_or(0)};
    const bool fit =
        times.t1 >= T1_MIN && times.t1 <= T1_MAX && times.t2 >= T2_MIN && times.t2 <= T2_MAX;
    return fit ? std::optional(times) : std::nullopt;
}

std::optional<command_line> options_parse(int argc, const char* const* argv, std::string& error) {
    const auto found = arguments_parse(argc, argv, error);
    if (!found) {
        return std::nullopt;
    }
    command_line line{{}, found->check_only};
    const bool by_default = found->config.empty() && access(DEFAULT_CONFIG, F_OK) == 0;
    const std::string config = by_default ? DEFAULT_CONFIG : found->config;
    if (!config.empty() && !config_take(line.set, config, error)) {
        return std::nullopt;
    }
    for (const auto& [row, value] : found->values) {
        if (!row->effect.set(line.set, value)) {
            error = bad_value(*row, value);
            return std::nullopt;
        }
    }
    return complete(line.set, error) ? std::optional(line) : std::nullopt;
}

std::vector<std::string> options_reload(options& to, options fresh) {
    std::vector<std::string> later;
    for (const option_group& group : option_groups()) {
        for (const option_row& row : group.rows) {
            if (row.time == option_time::START && !row.effect.same(fresh, to)) {
                later.emplace_back(row.name);
                row.effect.copy(fresh, to);
            }
        }
    }
    to = std::move(fresh);
    return later;
}
