// What waits for a user, and how long one may take too little while others wait.

#include "net/outbox.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <random>

#include "net/slowness.h"
#include "support/files.h"

namespace {

namespace fs = std::filesystem;
constexpr size_t KIB = 1024, MIB = 1024 * KIB, MEMORY = 256 * KIB, PORTION = 64 * KIB;

struct user_outbox : temp_dir {
    outbox_pool pool{.each_max = 2 * MIB, .total_max = 8 * MIB, .folder = path};
    outbox box;
    user_outbox() { box.use_files(pool); }
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
    user_outbox user;
    const std::string sent = noise(32 * MIB, 5);
    std::minstd_rand random(1);
    size_t added = 0, taken = 0;
    for (int step = 0; taken < sent.size(); ++step) {
        const bool fills = step / 50 % 2 == 0 && !user.box.full();
        const size_t size = random() % (fills ? 300 * KIB : 350 * KIB);
        if (fills || random() % 4 == 0) {
            user.box.append(std::string_view(sent).substr(added, size));
            added = std::min(added + size, sent.size());
        } else {
            const std::string got = take(user.box, size);
            ASSERT_TRUE(got == std::string_view(sent).substr(taken, got.size())) << step;
            taken += got.size();
        }
        ASSERT_EQ(user.box.size(), added - taken);
        ASSERT_EQ(user.pool.used, added - taken);
    }
    EXPECT_LE(fs::file_size(file_in(user.path)), 2 * MIB);
}

TEST(GwrelayOutbox, WhatMemoryDoesNotHoldIsInAFileWithoutAName) {
    user_outbox user;
    user.box.append(std::string(MEMORY + PORTION - 1, 'a'));
    EXPECT_EQ(file_in(user.path), "");
    user.box.append("b");
    const fs::path file = file_in(user.path);
    ASSERT_FALSE(file.empty());
    EXPECT_TRUE(fs::is_empty(user.path));
    EXPECT_EQ(fs::file_size(file), PORTION);
    EXPECT_EQ(take(user.box, MIB).size(), MEMORY + PORTION);
    EXPECT_EQ(fs::file_size(file), 0U);
    user.box.append(std::string(MIB, 'c'));
    EXPECT_FALSE(user.box.lost());
    fs::resize_file(file, PORTION);
    EXPECT_LT(take(user.box, MIB).size(), MIB);
    EXPECT_TRUE(user.box.lost());
}

TEST(GwrelayOutbox, IsFullUntilThereIsRoomForAGoodPortion) {
    for (const size_t each : {2 * MIB, 64 * KIB}) {
        user_outbox user;
        user.pool.each_max = each;
        user.box.append(std::string(each - 1, 'a'));
        EXPECT_FALSE(user.box.full());
        user.box.append("b");
        take(user.box, std::min(each / 2, PORTION));
        EXPECT_TRUE(user.box.full());
        take(user.box, 1);
        EXPECT_FALSE(user.box.full());
    }
    outbox device;
    device.append(std::string(MEMORY - 1, 'a'));
    EXPECT_FALSE(device.full());
    device.append("b");
    EXPECT_TRUE(device.full());
}

// Not more than the pool holds is written to files, and nobody keeps others from what memory holds.
TEST(GwrelayOutbox, HasNoFileWhileThePoolIsFull) {
    user_outbox greedy;
    greedy.pool.total_max = MIB;
    {
        outbox late;
        late.use_files(greedy.pool);
        greedy.box.append(std::string(MIB, 'a'));
        EXPECT_FALSE(greedy.box.full());
        late.append(std::string(MEMORY, 'b'));
        EXPECT_FALSE(late.full());
        late.append(std::string(PORTION, 'c'));
        EXPECT_TRUE(late.full());
        take(greedy.box, MIB);
        EXPECT_EQ(take(late, MEMORY), std::string(MEMORY, 'b'));
        EXPECT_FALSE(late.full());
    }
    EXPECT_EQ(greedy.pool.used, 0U) << "what was left is gone with its user";
}

// Nothing is lost, whether there can be no file or one that takes no more. The log tells it once.
TEST(GwrelayOutbox, IsFullWhileItsFileCannotBeWritten) {
    const auto ignored = signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    const std::string sent = noise(MIB, 6);
    for (const bool no_file : {true, false}) {
        user_outbox user;
        user.pool.folder += no_file ? "/none" : "";
        const rlimit limit{no_file ? before.rlim_cur : 100 * KIB, before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
        testing::internal::CaptureStderr();
        user.box.append(std::string_view(sent).substr(0, 500 * KIB));
        user.box.append(std::string_view(sent).substr(500 * KIB));
        const std::string log = testing::internal::GetCapturedStderr();
        EXPECT_EQ(text_count(log, user.pool.folder), 1) << log;
        EXPECT_TRUE(user.box.full());
        setrlimit(RLIMIT_FSIZE, &before);
        EXPECT_TRUE(take(user.box, MEMORY) == sent.substr(0, MEMORY));
        EXPECT_FALSE(user.box.full()) << no_file;
        EXPECT_TRUE(take(user.box, MIB) == sent.substr(MEMORY));
    }
    signal(SIGXFSZ, ignored);
}

// He is looked at once a second; the options are the default ones.
TEST(GwrelaySlowness, IsToKeepOthersWaitingForTwentySecondsAndToTakeTooLittle) {
    constexpr int LEAST = 16 * KIB, NEVER_CUT = 0;
    struct {
        const char* what;
        int rate, takes_ten_times_the_least_at, keeps_waiting_every, keeps_waiting_until, cut_at;
    } const cases[] = {
        {"takes too little", LEAST - 1, -1, 1, 60, 20},
        {"takes enough", LEAST, -1, 1, 60, NEVER_CUT},
        {"takes enough at once", 0, 15, 1, 60, 41},
        {"keeps nobody waiting", 0, -1, 1, 0, NEVER_CUT},
        {"keeps others waiting now and then", 0, -1, 9, 60, 20},
        {"stops it", 0, -1, 1, 10, NEVER_CUT},
    };
    for (const auto& [what, rate, burst_at, every, until, cut_at] : cases) {
        slowness his;
        uint64_t taken = 0;
        int cut = NEVER_CUT;
        for (int second = 0; second < 60 && cut == NEVER_CUT; ++second) {
            const auto now = steady::time_point(std::chrono::seconds(1000 + second));
            const bool keeps = second < until && second % every == 0;
            cut = slowness_look(his, now, taken, keeps, options()) ? second : NEVER_CUT;
            taken += static_cast<uint64_t>(second == burst_at ? 10 * LEAST : rate);
        }
        EXPECT_EQ(cut, cut_at) << what;
    }
}

}  // namespace
