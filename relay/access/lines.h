// lines.h - files of the operator's with a line for each thing. Empty lines mean nothing, nor do
// those that begin with "#".
#pragma once

#include <functional>
#include <string>
#include <string_view>

// Gives `take` each line, which says what is wrong with it. False, with the place and the reason in
// `error`: a line was wrong, or the file cannot be read.
bool lines_read(const std::string& path, std::string& error,
                const std::function<void(std::string_view line, std::string& wrong)>& take);
// Takes the next word off the front of a line, up to one of the characters `between`. Empty: there
// is none any more.
std::string_view word_take(std::string_view& line, std::string_view between);
