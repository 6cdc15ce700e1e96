// What another user has put at one of the daemon's names, before the daemon came there.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "connection/gwa_connection.h"
#include "main/gwa_args.h"
#include "main/gwa_log.h"
#include "main/gwa_status.h"
#include "reporters/dlna_status_socket.h"
#include "reporters/port_info.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_util_file.h"
#include "support/child.h"

namespace {

struct place {
    const char* name;  // in the folder where everybody writes
    std::function<void(const std::string& home)> use;
    const char* said;
};

void args_run(const std::string& home, const std::string& log) {
    std::vector<std::string> arguments{"gwad", "-H", home, "-l", log, "-p", "0"};
    args_parse(static_cast<int>(arguments.size()), argument_list(arguments).data());
}

void port_socket_open(const std::string& home) {
    gwa_connection_table_init();
    poll_init(&gwa_connections.cntl.poller);
    port_info_start(&gwa_connections.cntl, (home + "/tmp/port.sock").c_str());
}

constexpr char TRAP[] = "it may be another user's trap\n";
const place PLACES[] = {
    {"gwad.pid", [](auto& home) { args_run(home, home + "/log"); }, TRAP},
    {"gwad.log", [](auto& home) { args_run(home, home + "/tmp/gwad.log"); }, TRAP},
    {"gwad.stat", [](auto&) { gwa_status_check(nullptr); }, TRAP},
    {"session.id", [](auto&) { gwa_file_write(gwa_process_paths.session_id_file, "x", 1); }, TRAP},
    {"dlna.sock", [](auto&) { dlna_status_socket_open(); }, "socket init success"},
    {"port.sock", [](auto& home) { port_socket_open(home); }, "port info success"},
};

}  // namespace

TEST(PlantedLink, IsFollowedAtNoneOfOurNames) {
    for (const bool hard : {false, true}) {
        for (const place& at : PLACES) {
            const temp_dir home;
            const std::string victim = home.path + "/victim", name = home.path + "/tmp/" + at.name;
            std::filesystem::create_directory(home.path + "/tmp");
            chmod((home.path + "/tmp").c_str(), 0777);
            file_write(victim, "1234567");  // no process has this number
            chmod(victim.c_str(), 0600);
            ASSERT_EQ(
                hard ? link(victim.c_str(), name.c_str()) : symlink(victim.c_str(), name.c_str()),
                0);
            child daemon([&] {
                umask(0);
                gwa_process_paths_init(home.path.c_str());
                at.use(home.path);
            });
            daemon.wait();
            struct stat left {};
            EXPECT_EQ(stat(victim.c_str(), &left), 0) << at.name;
            EXPECT_EQ(left.st_mode & 07777, 0600U) << at.name;
            EXPECT_EQ(file_read(victim), "1234567") << at.name;
            EXPECT_NE(daemon.errors().find(at.said), std::string::npos) << daemon.errors();
        }
    }
}
