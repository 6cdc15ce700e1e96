// files.h - the files of the page, which are part of the program: embed.cmake makes their source.
#pragma once

#include <string_view>
#include <vector>

struct page_file {
    std::string_view name, tag, text;  // the tag changes with the text
};
extern const std::vector<page_file> PAGE_FILES;
