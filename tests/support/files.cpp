#include "files.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

temp_dir::temp_dir()
    : path((std::filesystem::temp_directory_path() / "gwad-test-XXXXXX").string()) {
    if (mkdtemp(path.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed for " + path);
    }
}

temp_dir::~temp_dir() {
    std::error_code ignored;  // a file that a child still writes must not end the test run
    std::filesystem::remove_all(path, ignored);
}

std::string file_read(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}
