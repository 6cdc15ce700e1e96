// Users who take little: what waits for them, whom they hold up, who is cut. And how many there may
// be.

#include <atomic>
#include <filesystem>
#include <numeric>
#include <thread>

#include "relay/fixture.h"

namespace {

namespace fs = std::filesystem;
constexpr int KIB = 1024, MIB = 1024 * KIB;
constexpr size_t FLOOD = 24 * MIB;  // more than all kernel buffers on the way to a user

// Sends a stream more than anybody takes, for as long as the relay reads.
struct flood {
    int fd;
    std::atomic<bool> done = false;
    std::jthread writer;

    flood(const unique_fd& data, uint32_t stream)
        : fd(data.get()), writer([this, frames = data_frames(stream, std::string(FLOOD, 'x'))] {
              done = write_all(fd, frames, 2 * TEST_PATIENCE);
          }) {}
    ~flood() { shutdown(fd, SHUT_RDWR); }  // ends the writing
    bool is_read() const {
        return eventually([this] { return done.load(); });
    }
};

// The sizes of the relay's nameless files in that folder.
std::vector<uint64_t> files_in(const relay& hub, const std::string& folder) {
    std::vector<uint64_t> sizes;
    for (const auto& entry :
         fs::directory_iterator("/proc/" + std::to_string(hub.process.pid()) + "/fd")) {
        std::error_code gone;
        if (fs::read_symlink(entry, gone).string().starts_with(folder)) {
            sizes.push_back(fs::file_size(entry, gone));
        }
    }
    return sizes;
}

TEST(GwrelayFairness, WhoPausesHoldsNobodyAndWhatWaitsIsInAFile) {
    const temp_dir folder;
    device box({"--buffer-folder=" + folder.path, "--linger-timeout=0.2"});
    const unique_fd paused = box.user(GET_BOX, SMALL_BUFFER),
                    paused_too = box.user(GET_BOX, SMALL_BUFFER);
    const std::string response = OK + "Content-Length: 7340032\r\n\r\n" + noise(7 * MIB, 7);
    const std::string but_one = response.substr(0, response.size() - 1);
    ASSERT_TRUE(box.says(data_frames(1, but_one) + data_frames(2, but_one)));
    const unique_fd other = box.user();
    box.answers(OK_X);
    EXPECT_EQ(read_with_end(other), "end:" + OK_X);
    const std::string json = get(box.hub, "/status.json");
    EXPECT_TRUE(has(json, "\"held_back\":false,") && has(json, "\"streams_cut\":0,")) << json;
    const uint64_t waiting = number_in(json, "bytes_waiting");
    EXPECT_GT(waiting, 2 * MIB);
    const auto files = files_in(box.hub, folder.path);
    EXPECT_EQ(files.size(), 2U);
    EXPECT_LT(waiting - std::reduce(files.begin(), files.end()), 2 * 320 * KIB);
    box.says(data_frames(1, response.substr(but_one.size())) +
             data_frames(2, response.substr(but_one.size())));
    for (const unique_fd* user : {&paused, &paused_too}) {
        EXPECT_TRUE(read_with_end(*user) == "end:" + response);
    }
    EXPECT_TRUE(eventually([&] { return files_in(box.hub, folder.path).empty(); }));
    EXPECT_EQ(number_in(get(box.hub, "/status.json"), "bytes_waiting"), 0U);
}

// The other is there already, or comes later: until then a device's only data connection may be
// held back.
TEST(GwrelayFairness, WhoKeepsOthersWaitingIsCut) {
    const char SLOW[] = " is cut: it keeps others waiting and takes too little; ";
    const char STUCK[] =
        " is cut: all data connections are held back, and it has moved the least; ";
    const strings slow{"--rate-time=0.2", "--slow-timeout=0.4", "--stuck-timeout=60"};
    const std::tuple<const char*, strings, bool> cases[] = {
        {SLOW, slow, true}, {SLOW, slow, false}, {STUCK, {"--stuck-timeout=0.3"}, false}};
    for (auto [reason, options, is_there] : cases) {
        options.push_back("--user-buffer=64K");
        device box(options);
        const unique_fd slow_user = box.user(GET_BOX, SMALL_BUFFER);
        unique_fd other = is_there ? box.user() : unique_fd();
        const flood flooding(box.data, 1);
        EXPECT_TRUE(
            eventually([&] { return has(get(box.hub, "/status.json"), "\"held_back\":true,"); }));
        if (!is_there) {
            EXPECT_TRUE(stays_silent(box.data.get(), 4 * A_MOMENT)) << "he keeps nobody waiting";
            other = say_to(box.hub.front, GET_BOX);
        }
        const std::string closed = frame_bytes(CLOSE_STREAM, 1);
        EXPECT_TRUE(read_until(box.data.get(), closed).ends_with(closed)) << reason;
        EXPECT_TRUE(is_there || frame_stream(box.hears()) == 2);
        EXPECT_TRUE(read_with_end(slow_user).starts_with("reset:"));
        EXPECT_TRUE(has(box.hub.process.errors(), reason));
        EXPECT_TRUE(flooding.is_read());
        box.says(data_frames(2, OK_X));
        EXPECT_EQ(read_with_end(other), "end:" + OK_X);
        EXPECT_TRUE(has(get(box.hub, "/status.json"), "\"streams_cut\":1,"));
    }
}

// However often his outbox is full and his connection held back.
TEST(GwrelayFairness, WhoTakesAllGetsAll) {
    device box({"--user-buffer=64K"});
    const unique_fd user = box.user(GET_BOX, SMALL_BUFFER);
    const std::string sent = noise(12 * MIB, 8), frames = data_frames(1, sent);
    const std::jthread writer([&] { write_all(box.data.get(), frames); });
    EXPECT_TRUE(read_exact(user.get(), sent.size()) == sent);
}

// The first and the third take nothing, the second a little, and the other four have nothing to
// take. Two of these are beside the first, so that his end would help less. They all go on, and who
// comes next finds a connection that is free.
TEST(GwrelayFairness, WhereAllAreHeldBackTheOneThatMovesLeastGivesWay) {
    device box({"--user-buffer=256K", "--stuck-timeout=1.5"});
    const unique_fd second = data_login(box.hub, "box"), third = data_login(box.hub, "box");
    const unique_fd* const data[] = {&box.data, &second, &third};
    std::vector<unique_fd> users;
    for (uint32_t stream = 1; stream <= 7; ++stream) {
        users.push_back(say_to(box.hub.front, GET_BOX, SMALL_BUFFER));
        ASSERT_EQ(frame_stream(frame_read(data[(stream - 1) % 3]->get())), stream);
    }
    const auto tells = [&box](const std::string& text, int times) {
        return text_count(get(box.hub, "/status.json"), text) == times;
    };
    const flood first(box.data, 1), with_it(third, 3);
    EXPECT_TRUE(eventually([&] { return tells("\"held_back\":true,", 2); }));
    EXPECT_TRUE(stays_silent(users[6].get(), A_MOMENT));  // their systems have got what they take
    const flood last_flood(second, 2);
    for (int reads = 0; !tells("\"streams_cut\":1,", 1) && reads < 200; ++reads) {
        EXPECT_EQ(read_exact(users[1].get(), SMALL_BUFFER).size(), SMALL_BUFFER);
        std::this_thread::sleep_for(A_MOMENT / 4);
    }
    EXPECT_TRUE(read_with_end(users[2]).starts_with("reset:"));
    EXPECT_EQ(frame_read(third.get()), frame_bytes(CLOSE_STREAM, 3));
    const unique_fd next = say_to(box.hub.front, GET_BOX);
    EXPECT_EQ(frame_stream(frame_read(third.get())), 8U);
    EXPECT_TRUE(tells("\"streams_cut\":1,", 1) && tells("\"port\":80,", 7));
}

TEST(GwrelayFairness, ADeviceGetsNoMoreStreamsThanItsShareOnEachConnection) {
    device box({"--device-streams=6"});
    const unique_fd first = box.user();
    unique_fd second = box.user();
    const std::string refused = get(box.hub, "/box/80/");
    EXPECT_TRUE(refused.starts_with("HTTP/1.1 503 ") && has(refused, "\r\nRetry-After: 5\r\n"))
        << refused;
    EXPECT_EQ(body(refused), "The device has as many streams as it can bear.\n");
    const unique_fd other_data = data_login(box.hub, "box");
    const unique_fd third = say_to(box.hub.front, GET_BOX), fourth = say_to(box.hub.front, GET_BOX);
    EXPECT_EQ(frame_stream(frame_read(other_data.get())), 3U);
    EXPECT_EQ(frame_stream(frame_read(other_data.get())), 4U);
    EXPECT_TRUE(get(box.hub, "/box/80/").starts_with("HTTP/1.1 503 "));
    box.says(data_frames(2, OK_X));
    EXPECT_EQ(box.hears(), frame_bytes(CLOSE_STREAM, 2));
    const unique_fd fifth = say_to(box.hub.front, GET_BOX);
    EXPECT_EQ(frame_stream(box.hears()), 5U);
}

// Who is turned away may still look at the page. With one user at most, so may one more.
TEST(GwrelayFairness, UsersBeyondTheLimitsAreToldToComeAgain) {
    const std::pair<const char*, const char*> cases[] = {
        {"--address-users=2", "There are too many connections from this address.\n"},
        {"--users=2", "The relay has as many users as it can bear.\n"}};
    for (const auto& [option, reason] : cases) {
        device box({option, "--linger-timeout=0.4"});
        const unique_fd first = box.user();
        unique_fd second = box.user();
        const std::string refused = get(box.hub, "/box/80/");
        EXPECT_TRUE(refused.starts_with("HTTP/1.1 503 ") && has(refused, "\r\nRetry-After: 5\r\n"))
            << refused;
        EXPECT_EQ(body(refused), reason);
        EXPECT_TRUE(fetch(box.hub, "HEAD /box/80/" + HTTP + "\r\n").ends_with("\r\n\r\n"));
        EXPECT_TRUE(has(get(box.hub, "/status.json"), ",\"users\":2,\"users_refused\":3,"));
        EXPECT_TRUE(has(get(box.hub, "/status.json"), "\"users\":2,\"users_refused\":4,"));
        second.reset();
        EXPECT_TRUE(
            eventually([&] { return get(box.hub, "/x/80/").starts_with("HTTP/1.1 404 "); }));
    }
    const device box({"--users=1"});
    const unique_fd first = loopback_connect(box.hub.front), told = loopback_connect(box.hub.front);
    EXPECT_TRUE(closed_by_peer(loopback_connect(box.hub.front).get()));
    write_all(told.get(), GET_BOX);
    EXPECT_TRUE(read_with_end(told).starts_with("end:HTTP/1.1 503 "));
}

TEST(GwrelayFairness, UsersFitTheDescriptorsThatThereAre) {
    strings arguments = relay::command_line({"--listen=nowhere", "--announce=a"});
    arguments.insert(arguments.begin(), {"/bin/sh", "-c", "ulimit -n 100; exec \"$0\" \"$@\""});
    child process(arguments);
    EXPECT_EQ(process.wait(), 1);
    EXPECT_TRUE(has(process.errors(), " 100 descriptors are enough for 25 users, not for 2000\n"))
        << process.errors();
}

}  // namespace
