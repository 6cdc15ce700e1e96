// What waits for a user, and how long one may take too little while others wait.

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <random>

#include "gwrelay/outbox.h"
#include "gwrelay/slowness.h"
#include "support/files.h"

namespace {

namespace fs = std::filesystem;
constexpr size_t KIB = 1024, MIB = 1024 * KIB, MEMORY = 256 * KIB, PORTION = 64 * KIB;

struct pool_in_folder : temp_dir {
    outbox_pool pool{.each_max = 2 * MIB, .total_max = 8 * MIB, .folder = path};
};

// The nameless file of a folder's outbox; empty when there is none.
fs::path file_in(const std::string& folder) {
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (fs::read_symlink(entry, gone).string().starts_with(folder)) {
            return entry.path();
        }
    }
    return {};
}

std::string take(outbox& from, size_t size) {
    std::string taken;
    while (taken.size() < size && !from.front().empty()) {
        const size_t count = std::min(size - taken.size(), from.front().size());
        taken += from.front().substr(0, count);
        from.remove(count);
    }
    return taken;
}

// Now and then it is nearly full, now and then empty, and the file is gone through many times.
TEST(GwrelayOutbox, GivesBackInOrderWhatItTook) {
    pool_in_folder all;
    outbox box;
    box.use_files(all.pool);
    const std::string sent = noise(32 * MIB, 5);
    std::minstd_rand random(1);
    size_t added = 0, taken = 0;
    for (int step = 0; taken < sent.size(); ++step) {
        const bool fills = step / 50 % 2 == 0 && !box.full();
        const size_t size = random() % (fills ? 300 * KIB : 350 * KIB);
        if (fills || random() % 4 == 0) {
            box.append(std::string_view(sent).substr(added, size));
            added = std::min(added + size, sent.size());
        } else {
            const std::string got = take(box, size);
            ASSERT_TRUE(got == std::string_view(sent).substr(taken, got.size())) << step;
            taken += got.size();
        }
        ASSERT_EQ(box.size(), added - taken);
        ASSERT_EQ(all.pool.used, added - taken);
    }
    EXPECT_LE(fs::file_size(file_in(all.path)), 2 * MIB);
}

TEST(GwrelayOutbox, WhatMemoryDoesNotHoldIsInAFileWithoutAName) {
    pool_in_folder all;
    {
        outbox box;
        box.use_files(all.pool);
        box.append(std::string(MEMORY + PORTION - 1, 'a'));
        EXPECT_EQ(file_in(all.path), "");
        box.append("b");
        const fs::path file = file_in(all.path);
        ASSERT_FALSE(file.empty());
        EXPECT_TRUE(fs::is_empty(all.path));
        EXPECT_EQ(fs::file_size(file), PORTION);
        EXPECT_EQ(take(box, MIB).size(), MEMORY + PORTION);
        EXPECT_EQ(fs::file_size(file), 0U);
        box.append(std::string(MIB, 'c'));
    }
    EXPECT_EQ(file_in(all.path), "");
    EXPECT_EQ(all.pool.used, 0U);
}

TEST(GwrelayOutbox, IsFullUntilThereIsRoomForAGoodPortion) {
    pool_in_folder all;
    outbox user, device;
    user.use_files(all.pool);
    user.append(std::string(2 * MIB - 1, 'a'));
    EXPECT_FALSE(user.full());
    user.append("b");
    EXPECT_TRUE(user.full());
    take(user, PORTION);
    EXPECT_TRUE(user.full());
    take(user, 1);
    EXPECT_FALSE(user.full());
    all.pool.each_max = 64 * KIB;
    outbox small;
    small.use_files(all.pool);
    small.append(std::string(64 * KIB, 'a'));
    take(small, 32 * KIB);
    EXPECT_TRUE(small.full());
    take(small, 1);
    EXPECT_FALSE(small.full());
    device.append(std::string(MEMORY - 1, 'a'));
    EXPECT_FALSE(device.full());
    device.append("b");
    EXPECT_TRUE(device.full());
}

// Not more than the pool holds is written to files, and nobody keeps others from what memory holds.
TEST(GwrelayOutbox, HasNoFileWhileThePoolIsFull) {
    pool_in_folder all;
    all.pool.total_max = MIB;
    outbox greedy, late;
    greedy.use_files(all.pool);
    late.use_files(all.pool);
    greedy.append(std::string(MIB, 'a'));
    EXPECT_FALSE(greedy.full());
    late.append(std::string(MEMORY, 'b'));
    EXPECT_FALSE(late.full());
    late.append(std::string(PORTION, 'c'));
    EXPECT_TRUE(late.full());
    take(greedy, MIB);
    EXPECT_EQ(take(late, MEMORY), std::string(MEMORY, 'b'));
    EXPECT_FALSE(late.full());
    EXPECT_EQ(take(late, MIB), std::string(PORTION, 'c'));
}

// Nothing is lost, whether there can be no file or one that takes no more. The log tells it once.
TEST(GwrelayOutbox, IsFullWhileItsFileCannotBeWritten) {
    const auto ignored = signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    const std::string sent = noise(MIB, 6);
    for (const bool no_file : {true, false}) {
        pool_in_folder all;
        all.pool.folder += no_file ? "/none" : "";
        outbox box;
        box.use_files(all.pool);
        const rlimit limit{no_file ? before.rlim_cur : 100 * KIB, before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
        testing::internal::CaptureStderr();
        box.append(std::string_view(sent).substr(0, 500 * KIB));
        box.append(std::string_view(sent).substr(500 * KIB));
        const std::string log = testing::internal::GetCapturedStderr();
        EXPECT_EQ(text_count(log, all.pool.folder), 1) << log;
        EXPECT_TRUE(box.full());
        setrlimit(RLIMIT_FSIZE, &before);
        EXPECT_TRUE(take(box, MEMORY) == sent.substr(0, MEMORY));
        EXPECT_FALSE(box.full()) << no_file;
        EXPECT_TRUE(take(box, MIB) == sent.substr(MEMORY));
    }
    signal(SIGXFSZ, ignored);
}

TEST(GwrelayOutbox, TellsThatItsFileIsDamaged) {
    pool_in_folder all;
    outbox box;
    box.use_files(all.pool);
    box.append(std::string(MIB, 'a'));
    fs::resize_file(file_in(all.path), PORTION);
    EXPECT_LT(take(box, MIB).size(), MIB);
    EXPECT_TRUE(box.lost());
}

// He is looked at once a second; the options are the default ones.
TEST(GwrelaySlowness, IsToKeepOthersWaitingForTwentySecondsAndToTakeTooLittle) {
    constexpr int NEVER_CUT = 0;
    constexpr uint64_t LEAST = 16 * KIB;
    struct {
        const char* what;
        std::function<uint64_t(int)> takes;  // within the second
        std::function<bool(int)> keeps_waiting;
        int cut_after;
    } const cases[] = {
        {"takes nothing", [](int) { return 0; }, [](int) { return true; }, 20},
        {"takes too little", [](int) { return LEAST - 1; }, [](int) { return true; }, 20},
        {"takes enough", [](int) { return LEAST; }, [](int) { return true; }, NEVER_CUT},
        {"takes enough at once", [](int s) { return s % 10 == 5 ? 10 * LEAST : 0; },
         [](int) { return true; }, NEVER_CUT},
        {"keeps nobody waiting", [](int) { return 0; }, [](int) { return false; }, NEVER_CUT},
        {"does so now and then", [](int) { return 0; }, [](int s) { return s % 9 == 0; }, 20},
        {"stops it", [](int) { return 0; }, [](int s) { return s < 10; }, NEVER_CUT},
        {"pauses", [](int s) { return s == 15 ? 10 * LEAST : 0; }, [](int) { return true; }, 41},
    };
    for (const auto& [what, takes, keeps_waiting, cut_after] : cases) {
        slowness his;
        uint64_t taken = 0;
        int cut = NEVER_CUT;
        for (int second = 0; second < 60 && cut == NEVER_CUT; ++second) {
            const auto now = steady::time_point(std::chrono::seconds(1000 + second));
            const bool slow = slowness_look(his, now, taken, keeps_waiting(second), options());
            cut = slow ? second : NEVER_CUT;
            taken += takes(second);
        }
        EXPECT_EQ(cut, cut_after) << what;
    }
}

}  // namespace
