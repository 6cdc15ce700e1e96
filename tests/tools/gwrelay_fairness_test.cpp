// Users who take little: what waits for them, whom they hold up, who is cut. And how many there may
// be.

#include <filesystem>
#include <list>
#include <thread>

#include "gwrelay_fixture.h"

namespace {

namespace fs = std::filesystem;
constexpr size_t KIB = 1024, MIB = 1024 * KIB;
constexpr size_t FLOOD = 16 * MIB;  // more than all kernel buffers on the way to a user
const char SMALL_USER_BUFFER[] = "--user-buffer=64K";

// Sends a stream more than anybody takes, for as long as the relay reads.
struct flood {
    int fd;
    std::jthread writer;

    flood(const unique_fd& data, uint32_t stream)
        : fd(data.get()), writer([this, stream] {
              write_all(fd, data_frames(stream, std::string(FLOOD, 'x')), 2 * TEST_PATIENCE);
          }) {}
    ~flood() { shutdown(fd, SHUT_RDWR); }  // ends the writing
};

uint64_t number_in(const std::string& json, const std::string& name) {
    const size_t at = json.rfind("\"" + name + "\":");
    return at == json.npos ? 0 : std::stoull(json.substr(at + name.size() + 3));
}

// What the relay's nameless files in that folder hold.
uint64_t bytes_in_files(const relay& hub, const std::string& folder) {
    uint64_t bytes = 0;
    for (const auto& entry :
         fs::directory_iterator("/proc/" + std::to_string(hub.process.pid()) + "/fd")) {
        std::error_code gone;
        const bool ours = fs::read_symlink(entry, gone).string().starts_with(folder);
        bytes += ours ? fs::file_size(entry) : 0;
    }
    return bytes;
}

TEST(GwrelayFairness, WhoPausesHoldsNobodyAndWhatWaitsIsInAFile) {
    const temp_dir folder;
    device box({"--buffer-folder=" + folder.path});
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
    EXPECT_LT(waiting - bytes_in_files(box.hub, folder.path), 2 * 320 * KIB);
    box.says(data_frames(1, response.substr(but_one.size())) +
             data_frames(2, response.substr(but_one.size())));
    for (const unique_fd* user : {&paused, &paused_too}) {
        EXPECT_TRUE(read_with_end(*user) == "end:" + response);
    }
    EXPECT_TRUE(eventually([&] { return bytes_in_files(box.hub, folder.path) == 0; }));
    EXPECT_EQ(number_in(get(box.hub, "/status.json"), "bytes_waiting"), 0U);
}

// A device's only data connection may be held back, until somebody waits for it.
TEST(GwrelayFairness, WhoKeepsOthersWaitingIsCut) {
    const std::pair<const char*, strings> cases[] = {
        {" is cut: it keeps others waiting and takes too little; ",
         {"--rate-time=0.2", "--slow-timeout=0.4", "--stuck-timeout=60"}},
        {" is cut: all data connections are held back, and it has moved the least; ",
         {"--stuck-timeout=0.3"}}};
    for (auto [reason, options] : cases) {
        options.push_back(SMALL_USER_BUFFER);
        device box(options);
        const unique_fd slow = box.user(GET_BOX, SMALL_BUFFER);
        const flood flooding(box.data, 1);
        EXPECT_TRUE(
            eventually([&] { return has(get(box.hub, "/status.json"), "\"held_back\":true,"); }));
        EXPECT_TRUE(stays_silent(box.data.get(), 4 * A_MOMENT)) << "he is alone";
        const unique_fd other = say_to(box.hub.front, GET_BOX);
        const std::string opened = frame_bytes(CLOSE_STREAM, 1);
        EXPECT_TRUE(read_until(box.data.get(), opened).ends_with(opened)) << reason;
        EXPECT_EQ(frame_stream(box.hears()), 2U);
        EXPECT_TRUE(read_with_end(slow).starts_with("reset:"));
        EXPECT_TRUE(has(box.hub.process.errors(), reason));
        EXPECT_TRUE(has(get(box.hub, "/status.json"), "\"streams_cut\":1,"));
    }
}

// Of all who hold a connection back. The others go on, and who comes next finds a free connection.
TEST(GwrelayFairness, WhereAllAreHeldBackTheOneThatMovesLeastGivesWay) {
    device box({"--user-buffer=256K", "--stuck-timeout=0.4"});
    std::vector<unique_fd> data, users;
    std::list<flood> floods;
    for (uint32_t stream = 1; stream <= 3; ++stream) {
        data.push_back(data_login(box.hub, "box"));
    }
    box.data.reset();
    EXPECT_TRUE(
        eventually([&] { return has(get(box.hub, "/status.json"), "\"data_connections\":3,"); }));
    for (uint32_t stream = 1; stream <= 3; ++stream) {
        users.push_back(say_to(box.hub.front, GET_BOX, SMALL_BUFFER));
        ASSERT_EQ(frame_stream(frame_read(data[stream - 1].get())), stream);
        floods.emplace_back(data[stream - 1], stream);
    }
    for (int reads = 0; !has(get(box.hub, "/status.json"), "\"streams_cut\":1,") && reads < 200;
         ++reads) {
        for (const int taker : {0, 2}) {
            EXPECT_EQ(read_exact(users[taker].get(), SMALL_BUFFER).size(), SMALL_BUFFER);
        }
        std::this_thread::sleep_for(A_MOMENT / 4);
    }
    EXPECT_TRUE(read_with_end(users[1]).starts_with("reset:"));
    const std::string closed = frame_bytes(CLOSE_STREAM, 2);
    EXPECT_TRUE(read_until(data[1].get(), closed).ends_with(closed));
    const unique_fd next = say_to(box.hub.front, GET_BOX);
    EXPECT_EQ(frame_stream(frame_read(data[1].get())), 4U);
    for (const int taker : {0, 2}) {
        EXPECT_EQ(read_exact(users[taker].get(), SMALL_BUFFER).size(), SMALL_BUFFER);
    }
}

TEST(GwrelayFairness, ADeviceGetsNoMoreStreamsThanItsShareOnEachConnection) {
    device box({"--device-streams=10"});
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
        EXPECT_TRUE(has(get(box.hub, "/"), "<p>2 users, 4 refused; "));
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
