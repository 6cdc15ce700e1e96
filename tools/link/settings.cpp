#include <charconv>
#include <map>
#include <sstream>

#include "line.h"

namespace {

constexpr double PER_MILLION = 1e6;
constexpr double BEYOND = 1e15;  // more than anyone means, and still exact

// A number with one of the units behind it; negative when it is none.
double number_with_unit(std::string_view text, const std::map<std::string_view, double>& units) {
    double value = 0;
    const char* const text_end = text.data() + text.size();
    const auto [end, failed] = std::from_chars(text.data(), text_end, value);
    const auto unit = units.find({end, static_cast<size_t>(text_end - end)});
    const bool good = failed == std::errc{} && unit != units.end() && value >= 0;
    return good && value * unit->second < BEYOND ? value * unit->second : -1;
}

double amount(std::string_view text) {
    return number_with_unit(text, {{"", 1}, {"k", 1e3}, {"M", 1e6}, {"G", 1e9}});
}

double time_ns(std::string_view text) {
    return number_with_unit(text, {{"us", 1e3}, {"ms", 1e6}, {"s", 1e9}});
}

// A part of all packets in percent, with or without the sign.
double loss_ppm(std::string_view text) {
    const double ppm = number_with_unit(text, {{"", PER_MILLION / 100}, {"%", PER_MILLION / 100}});
    return ppm <= PER_MILLION ? ppm : -1;
}

nanoseconds whole_ns(double time) { return nanoseconds{static_cast<int64_t>(time)}; }

bool set_queue(std::string_view value, line_settings& to) {
    const double time = time_ns(value);
    const double bytes = amount(value);
    if (time >= 0) {
        to.queue = whole_ns(time);
        to.queue_bytes = 0;
    } else if (bytes >= 1) {
        to.queue_bytes = static_cast<int64_t>(bytes);
    }
    return time >= 0 || bytes >= 1;
}

// False: no such name, or a value that is no good.
bool set_one(std::string_view name, std::string_view value, line_settings& to) {
    double number = -1;
    if (name == "rate") {
        number = amount(value);
        to.rate = static_cast<int64_t>(number);
    } else if (name == "delay") {
        number = time_ns(value);
        to.delay = whole_ns(number);
    } else if (name == "loss") {
        number = loss_ppm(value);
        to.loss = static_cast<uint32_t>(std::max(number, 0.0));
    } else if (name == "max") {
        number = amount(value);
        to.largest = static_cast<size_t>(std::max(number, 0.0));
    } else if (name == "queue") {
        return set_queue(value, to);
    }
    return number >= 0;
}

}  // namespace

std::string line_settings_read(const std::string& text, line_settings& to) {
    line_settings read = to;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        const size_t equals = std::min(word.find('='), word.size());
        const std::string_view value =
            std::string_view(word).substr(std::min(equals + 1, word.size()));
        if (!set_one(word.substr(0, equals), value, read)) {
            return "no setting of a line: " + word;
        }
    }
    to = read;
    return "";
}
