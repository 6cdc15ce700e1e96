#include "files.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "child.h"

namespace fs = std::filesystem;

temp_dir::temp_dir() : path((fs::temp_directory_path() / "gwad-test-XXXXXX").string()) {
    if (mkdtemp(path.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed for " + path);
    }
}

temp_dir::~temp_dir() {
    std::error_code ignored;  // a file that a child still writes must not end the test run
    fs::remove_all(path, ignored);
}

std::string file_read(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::error_code failed;
    // As long as it is now: somebody may write faster than we read. Files of /proc do not tell.
    const auto size = fs::file_size(path, failed);
    std::string bytes(failed ? 0 : static_cast<size_t>(size), '\0');
    if (bytes.empty()) {
        return {std::istreambuf_iterator<char>(file), {}};
    }
    file.read(bytes.data(), std::ssize(bytes));
    bytes.resize(static_cast<size_t>(file.gcount()));
    return bytes;
}

void file_write(const std::string& path, std::string_view bytes, bool executable) {
    std::ofstream(path, std::ios::binary).write(bytes.data(), std::ssize(bytes));
    if (executable) {
        // What runs is a copy that this process never had open: the child of another thread may
        // hold on to the file, and what is open for writing cannot be run.
        child({"/usr/bin/install", "-m", "700", path, path + ".copy"}).wait();
        fs::rename(path + ".copy", path);
    }
}

int text_count(std::string_view text, std::string_view part) {
    int count = 0;
    for (size_t at = text.find(part); at != text.npos; at = text.find(part, at + part.size())) {
        ++count;
    }
    return count;
}

std::string noise(size_t size, uint32_t seed) {
    std::string bytes(size, '\0');
    for (char& byte : bytes) {
        seed = seed * 1664525 + 1013904223;
        byte = static_cast<char>(seed >> 24);
    }
    return bytes;
}
