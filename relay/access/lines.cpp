#include "access/lines.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>

bool lines_read(const std::string& path, std::string& error,
                const std::function<void(std::string_view line, std::string& wrong)>& take) {
    std::ifstream file(path);
    file.peek();  // a folder opens too
    if (file.bad() || !file.is_open()) {
        error = path + ": " + strerror(errno);
        return false;
    }
    std::string text, wrong;
    for (size_t number = 1; wrong.empty() && std::getline(file, text); ++number) {
        const std::string_view all = text;
        const std::string_view line = all.substr(0, all.find_last_not_of(" \t\r") + 1);
        if (!line.empty() && line[0] != '#') {
            take(line, wrong);
        }
        error = wrong.empty() ? "" : path + ":" + std::to_string(number) + ": " + wrong;
    }
    return wrong.empty();
}

std::string_view word_take(std::string_view& line, std::string_view between) {
    line.remove_prefix(std::min(line.find_first_not_of(between), line.size()));
    const size_t end = std::min(line.find_first_of(between), line.size());
    const std::string_view word = line.substr(0, end);
    line.remove_prefix(end);
    return word;
}
