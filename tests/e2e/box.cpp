#include "box.h"

#include <filesystem>

namespace fs = std::filesystem;

// A name that cannot be resolved costs a second at most, also where a test is not isolated.
constexpr char RESOLVER[] = "RES_OPTIONS=timeout:1 attempts:1";

box::box(uint16_t manager_port, const char* verbose) {
    for (const char* folder : {"/tmp/wkr", "/etc", "/bin"}) {
        fs::create_directories(home.path + folder);
    }
    file_write(home.path + "/etc/firmware", "CURVER=1.2.3\r\nCOMPONENT=c7\nTERMINAL=t9\n");
    gwad = std::make_unique<child>(std::vector<std::string>{
        "/usr/bin/env", RESOLVER, GWAD_PATH, "-r", "localhost", "-p", std::to_string(manager_port),
        "-i", "lo", "-I", DEVICE_ID, "-H", home.path, "-l", home.path + "/log", "-V", verbose});
}

bool box::logs(std::string_view text, int times) const {
    return eventually([&] { return text_count(log(), text) >= times; });
}

bool box::restarts() const { return gwad->wait() == 0 && text_count(log(), RESTART_LINE) == 1; }

pid_t box::pid() const { return atoi(file_read(home.path + "/tmp/gwad.pid").c_str()); }

int box::open_fds() const {
    const fs::directory_iterator entries("/proc/" + std::to_string(pid()) + "/fd");
    return static_cast<int>(std::distance(begin(entries), end(entries)));
}

int text_count(std::string_view text, std::string_view part) {
    int count = 0;
    for (size_t at = text.find(part); at != text.npos; at = text.find(part, at + part.size())) {
        ++count;
    }
    return count;
}
