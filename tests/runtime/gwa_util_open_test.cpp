#include "runtime/gwa_util_open.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>

#include "support/files.h"
#include "support/sockets.h"

namespace {

constexpr uid_t SOMEBODY = 12345;

mode_t mode_of(const std::string& path) {
    struct stat file {};
    EXPECT_EQ(lstat(path.c_str(), &file), 0) << path;
    return file.st_mode & 07777;
}

struct mask {  // of the process, while it lives
    mode_t saved;
    explicit mask(mode_t bits) : saved(umask(bits)) {}
    mask(mask&&) = delete;
    ~mask() { umask(saved); }
};

// A folder like /tmp, one of the operator's, and a file that somebody wants us to overwrite.
struct Open : testing::Test {
    temp_dir own;
    const std::string shared = own.path + "/shared", name = shared + "/gwad.log";
    const std::string victim = own.path + "/victim", link = own.path + "/link";

    Open() {
        mkdir(shared.c_str(), 0700);
        chmod(shared.c_str(), 01777);
        file_write(victim, "kept");
    }
    static bool opens(const std::string& path, int flags) {
        errno = 0;
        return unique_fd(gwa_open(path.c_str(), flags, GWA_MODE_PRIVATE)).get() != -1;
    }
    // As the log does and as the other files do.
    bool refuses(const std::string& path) const {
        bool refused = true;
        for (const int flags : {O_RDWR | O_CREAT | O_APPEND, O_WRONLY | O_CREAT | O_TRUNC}) {
            refused = refused && !opens(path, flags) && errno == EPERM;
        }
        return refused && file_read(victim) == "kept";
    }
    bool writes(const std::string& path) const {
        return opens(path, O_WRONLY | O_CREAT | O_TRUNC) && file_read(victim).empty();
    }
};

}  // namespace

TEST_F(Open, MakesFilesThatTheMaskCanOnlyNarrow) {
    for (const auto& [bits, mode] : {std::pair{0, 0640}, {022, 0640}, {077, 0600}}) {
        const mask set(static_cast<mode_t>(bits));
        EXPECT_TRUE(opens(name, O_WRONLY | O_CREAT));
        EXPECT_EQ(mode_of(name), static_cast<mode_t>(mode));
        unlink(name.c_str());
    }
    EXPECT_FALSE(opens(name, O_RDONLY) || errno != ENOENT);
    EXPECT_FALSE(opens(own.path + "/no/log", O_WRONLY | O_CREAT) || errno != ENOENT);
    EXPECT_FALSE(opens(std::string(5000, 'x'), O_WRONLY | O_CREAT) || errno != ENAMETOOLONG);
}

TEST_F(Open, FollowsLinksThatNobodyElseCanHaveMade) {
    const std::pair<std::string, std::string> links[] = {
        {link, victim}, {link, "victim"}, {name, "../victim"}, {link, "shared/gwad.log"}};
    for (const auto& [from, to] : links) {  // the last one leads over the one before
        ASSERT_EQ(symlink(to.c_str(), from.c_str()), 0);
        file_write(victim, "kept");
        EXPECT_TRUE(writes(from)) << from << " -> " << to;
        unlink(link.c_str());
    }
    chmod(shared.c_str(), 0777);  // now everybody could exchange it
    file_write(victim, "kept");
    EXPECT_TRUE(refuses(name));
    ASSERT_EQ(symlink("link", link.c_str()), 0);
    EXPECT_FALSE(opens(link, O_WRONLY) || errno != ELOOP);
}

TEST_F(Open, FollowsWhatIsLikeDevStdoutToAPipe) {
    int ends[2] = {-1, -1};
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const unique_fd reader(ends[0]), writer(ends[1]);
    ASSERT_EQ(symlink(("/proc/self/fd/" + std::to_string(ends[1])).c_str(), link.c_str()), 0);
    const unique_fd log(gwa_open(link.c_str(), O_RDWR | O_CREAT | O_APPEND, GWA_MODE_PRIVATE));
    EXPECT_EQ(write(log.get(), "line", 4), 4);
    char told[8] = {};
    EXPECT_EQ(read(reader.get(), told, sizeof told), 4);
    EXPECT_STREQ(told, "line");
}

TEST_F(Open, RefusesASecondNameOfAFileWhereEverybodyWrites) {
    ASSERT_EQ(::link(victim.c_str(), name.c_str()), 0);
    EXPECT_TRUE(refuses(name));
    EXPECT_FALSE(opens(name, O_RDONLY)) << "what only we may read would be told";
    ASSERT_EQ(::link(victim.c_str(), link.c_str()), 0);
    EXPECT_TRUE(writes(link)) << "the operator's";
}

TEST_F(Open, RefusesWhatAnotherUserHasPutThere) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can be two users";
    }
    const std::string new_one = own.path + "/new";
    const std::function<void()> plants[] = {
        [&] { symlink(victim.c_str(), name.c_str()); },
        [&] { symlink(new_one.c_str(), name.c_str()); },
        [&] { file_write(name, "his"); },
        [&] { mkfifo(name.c_str(), 0666); },
    };
    for (const auto& plant : plants) {
        plant();
        ASSERT_EQ(lchown(name.c_str(), SOMEBODY, SOMEBODY), 0);
        const unique_fd reader(open(name.c_str(), O_RDONLY | O_NONBLOCK));  // of a pipe
        EXPECT_TRUE(refuses(name));
        unlink(name.c_str());
    }
    EXPECT_NE(access(new_one.c_str(), F_OK), 0) << "made through a link";
    // His own folder: his files are his, but his links lead to ours.
    chmod(shared.c_str(), 0755);
    ASSERT_EQ(chown(shared.c_str(), SOMEBODY, SOMEBODY), 0);
    ASSERT_EQ(symlink(victim.c_str(), name.c_str()), 0);
    ASSERT_EQ(lchown(name.c_str(), SOMEBODY, SOMEBODY), 0);
    EXPECT_TRUE(refuses(name) && !opens(name, O_RDONLY));
    ASSERT_EQ(chown(victim.c_str(), SOMEBODY, SOMEBODY), 0);
    ASSERT_EQ(rename(victim.c_str(), name.c_str()), 0);
    EXPECT_TRUE(writes(name));
}

TEST_F(Open, LetsOurGroupSpeakToASocket) {
    for (const auto& [bits, mode] : {std::pair{022, 0660}, {077, 0700}}) {
        const mask set(static_cast<mode_t>(bits));
        ASSERT_EQ(mknod(name.c_str(), S_IFSOCK | 0777, 0), 0);
        gwa_socket_admit_group(name.c_str());
        EXPECT_EQ(mode_of(name), static_cast<mode_t>(mode));
        unlink(name.c_str());
    }
    symlink(victim.c_str(), name.c_str());
    const mode_t before = mode_of(victim);
    gwa_socket_admit_group(name.c_str());
    gwa_socket_admit_group(victim.c_str());
    EXPECT_EQ(mode_of(victim), before);
}
