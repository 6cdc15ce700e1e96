// A user's request on its way through a data connection, and its end.

#include <atomic>
#include <thread>

#include "relay/fixture.h"

namespace {

constexpr size_t MANY_BYTES = 32 * 1024 * 1024;  // more than all kernel buffers on the way
const std::string CHUNKED = OK + "Transfer-Encoding: chunked\r\n\r\n";
const std::string UPGRADE = "GET /box/80/" + HTTP_ON + "Connection: Upgrade\r\nUpgrade: x\r\n\r\n";
const std::string CLOSED = frame_bytes(CLOSE_STREAM).substr(0, 8);  // whatever stream it was

TEST(GwrelayStream, EndsWhereTheResponseEnds) {
    const std::pair<const char*, strings> cases[] = {
        {"GET", {"HTTP/1.1 100 Continue\r\n\r\n" + OK + "Content-Length: 5\r", "\n\r\nhe", "llo"}},
        {"HEAD", {OK + "Content-Length: 5\r\n\r\n"}},
        {"GET", {CHUNKED + "3\n", "abc", "\n1\nd\r\n0\nA: b", "\n\n"}},
    };
    device box({"--linger-timeout=60"});
    for (const auto& [method, parts] : cases) {
        const unique_fd user = box.user(method + " /box/80/"s + HTTP + "\r\n");
        std::string whole;
        for (const std::string& part : parts) {
            EXPECT_TRUE(stays_silent(box.data.get(), test_duration{1})) << "before " << part;
            box.answers(part);
            whole += part;
        }
        EXPECT_EQ(read_with_end(user), "end:" + whole);
        EXPECT_EQ(box.hears(), frame_bytes(CLOSE_STREAM, box.stream)) << whole;
    }
}

// By the device, or by the end of the relay itself, which is in order.
TEST(GwrelayStream, ACutResponseEndsWithAReset) {
    const std::pair<std::string, int> cases[] = {{OK + "Content-Length: 9\r\n\r\npart", 0},
                                                 {OK + "\r\nendless", 0},
                                                 {OK + "\r\nendless", SIGTERM},
                                                 {OK + "Content-Length: 9\r\n\r\n", SIGINT}};
    for (const auto& [response, signal] : cases) {
        device box;
        const unique_fd user = box.user();
        box.answers(response);
        ASSERT_EQ(read_exact(user.get(), response.size()), response);
        if (signal == 0) {
            box.data.reset();
        } else {
            EXPECT_EQ(box.hub.process.terminate(TEST_PATIENCE, signal), 0);
        }
        EXPECT_EQ(read_with_end(user), "reset:");
    }
}

// It may be the end of a response that has no other, but not of one that has. What is made to stay
// open may be silent for longer.
TEST(GwrelayStream, SilenceEndsWhatHasNoOtherEnd) {
    struct {
        std::string end, response;
        bool user_ends = false;
    } const cases[] = {
        {"end:", OK + "\r\nendless"},
        {"end:", "no HTTP"},
        {"end:", "HTTP/1.1 200 " + std::string(65536, 'x')},
        {"end:", OK + "Content-Type: text/event-stream\r\n\r\n", true},
        {"reset:", CHUNKED + "5\r\nchu", true},
        // from here on made to stay open
        {"reset:", "HTTP/1.1 101 Switching Protocols\r\n\r\n"},
        {"reset:", OK + "Content-Type: text/event-stream\r\n\r\n"},
    };
    device box({"--linger-timeout=1", "--silence-timeout=3"});
    std::vector<unique_fd> users;
    for (const auto& [end, response, user_ends] : cases) {
        users.push_back(box.user(has(response, " 101 ") ? UPGRADE : GET_BOX));
        if (user_ends) {
            shutdown(users.back().get(), SHUT_WR);
        }
        box.answers(response);
    }
    for (size_t i = 0; i < users.size(); ++i) {
        if (i == users.size() - 2) {
            EXPECT_TRUE(stays_silent(box.data.get(), 2 * A_MOMENT)) << "no stream is closed";
            EXPECT_TRUE(still_echoes(box.data));
        }
        EXPECT_TRUE(read_with_end(users[i]) == cases[i].end + cases[i].response)
            << cases[i].response.substr(0, 80);
        EXPECT_TRUE(box.hears().starts_with(CLOSED));
    }
    clockid_t clock{};
    timespec used{};
    clock_getcpuclockid(box.hub.process.pid(), &clock);
    clock_gettime(clock, &used);
    EXPECT_LT(used.tv_sec * 100 + used.tv_nsec / 10'000'000, 40) << "hundredths of work";
}

// A device's diagnostic has a head whose frame says length 0 and whose text contains the length.
TEST(GwrelayStream, MendsTheHeadOfADiagnostic) {
    device box({}, true);  // at its own port no question comes along
    for (const char* reason : {"200 OK", "404 File Not Found", "503 Gateway Internal Error"}) {
        const unique_fd user = box.user("GET /box/10010/" + HTTP + "\r\n");
        std::string head =
            "HTTP/1.1 "s + reason + "\r\n" + CLOSE + "Content-Length:3\r\nX: \r\n\r\n";
        head.insert(head.size() - 4, PAYLOAD_MAX - head.size(), 'x');  // as long as one may be
        std::string sent = head;
        sent.replace(12, 4, be32(static_cast<uint32_t>(head.size())));
        box.says(frame_bytes(DATA, box.stream) + sent.substr(0, 20));
        box.says(sent.substr(20) + frame_bytes(DATA, box.stream, "abc"));
        EXPECT_EQ(read_to_end(user.get()), head + "abc");
        EXPECT_EQ(box.hears(), frame_bytes(CLOSE_STREAM, box.stream));
    }
    box.says(frame_bytes(DATA, box.stream) + "HTTP/1.1 200" + be32(8177));
    EXPECT_EQ(box.hears(), "");
    EXPECT_TRUE(has(box.hub.process.errors(), "of a diagnostic's head: 8177\n"));
}

// Neither slowness, of the upload or the response, nor an early answer is its end.
TEST(GwrelayStream, LastsUntilTheRequestIsWholeToo) {
    device box({"--answer-timeout=1", "--silence-timeout=1"});
    const unique_fd user = box.user("POST /box/80/" + HTTP + "Content-Length: 8\r\n\r\n");
    for (const char* byte : {"a", "b", "c", "d", "e", "f", "g"}) {
        EXPECT_TRUE(stays_silent(user.get(), A_MOMENT) && still_echoes(box.data));
        write_all(user.get(), byte);
        EXPECT_EQ(box.hears(), frame_bytes(DATA, 1, byte));
    }
    for (const std::string& part :
         {OK + "Content-Length: 6\r\n\r\n", "a"s, "b"s, "c"s, "d"s, "e"s, "f"s}) {
        box.answers(part);
        EXPECT_EQ(read_exact(user.get(), part.size()), part);
        EXPECT_TRUE(stays_silent(user.get(), A_MOMENT));
    }
    write_all(user.get(), "!");
    const std::string end = frame_bytes(DATA, 1, "!") + frame_bytes(CLOSE_STREAM, 1);
    EXPECT_TRUE(read_until(box.data.get(), end).ends_with(end));
}

// The relay waits for him only until it has handed over everything, and a moment more.
TEST(GwrelayStream, ALateReaderGetsAWholeResponse) {
    device box({"--linger-timeout=0.1"});
    const unique_fd user = box.user(GET_BOX, SMALL_BUFFER);
    const std::string response = OK + "Content-Length: 100000\r\n\r\n" + noise(100000, 4);
    box.answers(response);
    EXPECT_EQ(box.hears(), frame_bytes(CLOSE_STREAM, 1));
    EXPECT_TRUE(stays_silent(box.data.get(), 2 * A_MOMENT));
    EXPECT_TRUE(read_with_end(user) == "end:" + response);
}

TEST(GwrelayStream, IsSpreadAndDiesWithItsConnectionOrItsUser) {
    device box({"--linger-timeout=60"});
    const unique_fd second = data_login(box.hub, "box"), user = box.user();
    unique_fd other = say_to(box.hub.front, GET_BOX);
    EXPECT_EQ(frame_stream(frame_read(second.get())), 2U);
    box.answers("begun");
    EXPECT_EQ(read_exact(user.get(), 5), "begun");
    const unique_fd unanswered = say_to(box.hub.front, GET_BOX);
    EXPECT_EQ(frame_stream(box.hears()), 3U);
    box.data.reset();
    EXPECT_EQ(read_with_end(user), "reset:");
    EXPECT_TRUE(read_with_end(unanswered).starts_with("end:HTTP/1.1 502 "));
    write_all(second.get(), frame_bytes(DATA, 2, "whole"));
    EXPECT_EQ(read_exact(other.get(), 5), "whole");
    const linger at_once{1, 0};
    setsockopt(other.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    other.reset();
    EXPECT_EQ(frame_read(second.get()), frame_bytes(CLOSE_STREAM, 2));
    write_all(second.get(), frame_bytes(DATA, 2, "late"));
    EXPECT_TRUE(still_echoes(second));
    EXPECT_TRUE(has(get(box.hub, "/status.json"), "\"open_streams\":0,"));
}

// A device that takes nothing for a while is as patient as its heartbeats are.
TEST(GwrelayStream, HoldsAnUploadBackAndLosesNothing) {
    device box({"--stall-timeout=0.5", "--answer-timeout=2"});
    const unique_fd user = box.user("POST /box/80/" + HTTP +
                                    "Content-Length: " + std::to_string(MANY_BYTES) + "\r\n\r\n");
    box.answers("HTTP/1.1 ");
    const std::string upload = noise(MANY_BYTES, 1);
    std::atomic<bool> taken = false;
    std::jthread uploader([&] { taken = write_all(user.get(), upload, 2 * TEST_PATIENCE); });
    const auto sent = [&] { return number_in(get(box.hub, "/status.json"), "bytes_to_device"); };
    EXPECT_TRUE(eventually([&] {  // no more of it goes to the device
        const uint64_t before = sent();
        return stays_silent(box.control.get(), 3 * A_MOMENT) && sent() == before;
    }));
    EXPECT_EQ(body(get(box.hub, "/box/80/")), "The device's data connections are full.\n");
    EXPECT_FALSE(taken) << "the relay keeps it all in memory";
    const unique_fd waiting = say_to(box.hub.front, GET_BOX);
    EXPECT_TRUE(stays_silent(waiting.get(), A_MOMENT));
    const unique_fd second = data_login(box.hub, "box");
    EXPECT_EQ(frame_stream(frame_read(second.get())), 2U);
    std::string arrived, frame;
    while (arrived.size() < upload.size() && !(frame = box.hears()).empty()) {
        arrived += frame_payload(frame);
    }
    uploader.join();
    EXPECT_TRUE(arrived == upload);
}

TEST(GwrelayStream, ASlowReaderHoldsBackOnlyHisDataConnection) {
    const std::string flood = data_frames(1, std::string(MANY_BYTES, 'x'));
    const auto began = std::chrono::steady_clock::now();
    device box({"--stall-timeout=1", "--silence-timeout=2.4", "--user-buffer=256K"});
    const unique_fd reader = box.user(GET_BOX, SMALL_BUFFER);
    std::atomic<bool> taken = false;
    std::jthread writer([&] { taken = write_all(box.data.get(), flood, 2 * TEST_PATIENCE); });
    EXPECT_TRUE(
        eventually([&] { return has(get(box.hub, "/status.json"), "{\"held_back\":true,"); }));
    const unique_fd quick = data_login(box.hub, "box");
    std::vector<unique_fd> others;
    for (uint32_t stream = 2; stream < 5; ++stream) {  // all on the one that is not held back
        others.push_back(say_to(box.hub.front, GET_BOX));
        EXPECT_EQ(frame_stream(frame_read(quick.get())), stream);
    }
    for (uint32_t stream = 2; stream < 5; ++stream) {
        write_all(quick.get(), frame_bytes(DATA, stream, OK_X));
        EXPECT_EQ(read_with_end(others[stream - 2]), "end:" + OK_X);
        EXPECT_EQ(frame_read(quick.get()), frame_bytes(CLOSE_STREAM, stream));
    }
    // Taking little is enough, for longer than the device may be silent. Taking nothing at all
    // costs the reader his stream: then the connection is read again. The device hears from the
    // relay all the while, but not too often.
    for (int reads = 0; reads < 36; ++reads) {
        EXPECT_EQ(read_exact(reader.get(), SMALL_BUFFER).size(), SMALL_BUFFER) << reads;
        EXPECT_TRUE(stays_silent(quick.get(), A_MOMENT / 4));
        EXPECT_TRUE(reads % 10 != 9 || still_echoes(quick)) << reads;
    }
    EXPECT_FALSE(taken) << "the relay keeps it all in memory";
    const std::string heard = read_until(box.data.get(), frame_bytes(CLOSE_STREAM, 1));
    EXPECT_TRUE(heard.starts_with(frame_bytes(LOGIN_ANSWER)));
    EXPECT_LT(heard.size() / HEADER_SIZE * test_duration{480},
              std::chrono::steady_clock::now() - began + test_duration{960});
    EXPECT_TRUE(read_with_end(reader).starts_with("reset:"));
    writer.join();
    EXPECT_TRUE(taken);
    box.says(heartbeat_frame(1));
    EXPECT_TRUE(read_until(box.data.get(), heartbeat_frame(1)).ends_with(heartbeat_frame(1)));
}

}  // namespace
