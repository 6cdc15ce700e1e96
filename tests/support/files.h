// files.h - a directory that lives as long as the test that needs it, and whole-file reads.
#pragma once

#include <string>

struct temp_dir {  // made under the system's directory for such things, removed with what is in it
    std::string path;

    temp_dir();
    temp_dir(temp_dir&&) = delete;
    ~temp_dir();
};

// The file's bytes; empty when it cannot be read.
std::string file_read(const std::string& path);
