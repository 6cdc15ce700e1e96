// files.h - a directory that lives as long as the test that needs it, whole files, and texts.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

struct temp_dir {  // made under the system's directory for such things, removed with what is in it
    std::string path;

    temp_dir();
    temp_dir(temp_dir&&) = delete;
    ~temp_dir();
};

// The file's bytes; empty when it cannot be read.
std::string file_read(const std::string& path);
void file_write(const std::string& path, std::string_view bytes, bool executable = false);

// How often a text has that part.
int text_count(std::string_view text, std::string_view part);

// Bytes that look random and are the same for the same seed.
std::string noise(size_t size, uint32_t seed);
