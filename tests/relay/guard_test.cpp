// What follows the opening of a stream, so that a dead port neither costs others their data nor its
// user his time.

#include "relay/fixture.h"

namespace {

// Data frames of streams that no user has.
constexpr uint32_t FIRST = 1U << 30, SECOND = 1U << 31;

std::string echo_answer(uint32_t stream) {
    return frame_bytes(DATA, stream,
                       OK + "Content-Type:text/plain\r\nContent-Length:4\r\n\r\necho");
}

struct guarded : device {
    explicit guarded(const strings& options = {}) : device(options, true) {}
    // A user whose request is followed by its two echo requests.
    unique_fd user(const std::string& request) {
        unique_fd fd = device::user(request);
        const std::string end = "\r\n\r\n";
        const std::string echo =
            "GET /?x-qv-devid=box&x-qv-port=10010&x-qv-gwad-opt=echo&x-qv-pri=2147483647" +
            HTTP_ON + "X-Pad: 0";
        const size_t more = opening.size() - HEADER_SIZE - echo.size() - end.size();
        EXPECT_EQ(hears(), frame_bytes(DATA, FIRST + stream, echo + std::string(more, '0') + end));
        EXPECT_EQ(hears(), frame_bytes(DATA, SECOND + stream, echo + end));
        return fd;
    }
};

TEST(GwrelayGuard, IsAsLongAsTheOpeningFrameCarries) {
    constexpr size_t SHORTEST = 114;  // an echo request with its frame header
    guarded box;
    for (size_t size = 0; size < 9000; size += size < 60 ? 1 : 1990) {
        const std::string cookie = "Cookie: " + std::string(size, 'c');
        box.user("GET /box/80/" + HTTP + cookie + "\r\n\r\n");
        const std::string whole =
            "GET /?x-qv-devid=box&x-qv-port=80" + HTTP_ON + cookie + "\r\n" + FORWARDED + "\r\n";
        if (whole.size() < SHORTEST) {
            EXPECT_TRUE(box.opening.starts_with(whole.substr(0, whole.size() - 2) + "X-Pad: 0"));
            EXPECT_TRUE(box.opening.ends_with("0\r\n\r\n"));
        } else {
            EXPECT_EQ(box.opening, whole.substr(0, PAYLOAD_MAX));
        }
        box.answers(OK_X);
        if (whole.size() > PAYLOAD_MAX) {
            EXPECT_EQ(frame_payload(box.hears()), whole.substr(PAYLOAD_MAX));
        }
        EXPECT_EQ(box.hears(), frame_bytes(CLOSE_STREAM, box.stream));
    }
}

TEST(GwrelayGuard, ADeadPortIsToldAtOnceAndItsBodyIsNeverSent) {
    guarded box;
    const std::string part(10000, 'b');
    const auto began = std::chrono::steady_clock::now();
    for (int request = 0; request < 5; ++request) {
        const unique_fd user =
            box.user("POST /box/80/" + HTTP + "Content-Length: 20000\r\n\r\n" + part);
        write_all(user.get(), part);
        EXPECT_TRUE(stays_silent(box.data.get(), A_MOMENT / 4));
        box.says(echo_answer(box.stream + SECOND));
        const std::string answer = read_with_end(user);
        EXPECT_TRUE(answer.starts_with("end:HTTP/1.1 502 Bad Gateway\r\n")) << answer;
        EXPECT_EQ(body(answer), "Nothing listens on port 80 of the device.\n");
        EXPECT_EQ(box.hears(), frame_bytes(CLOSE_STREAM, box.stream));
    }
    EXPECT_TRUE(still_echoes(box.data));
    EXPECT_LT(std::chrono::steady_clock::now() - began, test_duration{3000});  // no tick each
}

TEST(GwrelayGuard, ALivePortGetsTheRestAndItsUserNothingOfTheEchoes) {
    for (const std::string& alive :
         {echo_answer(1 + FIRST), frame_bytes(DATA, 1, "HTTP/1.1 100 \n\n")}) {
        guarded box;
        const unique_fd user = box.user("POST /box/80/" + HTTP + "Content-Length: 20000\r\n\r\n" +
                                        std::string(12000, 'b'));
        box.says(alive);
        std::string arrived = body(box.opening);
        write_all(user.get(), std::string(8000, 'b'));
        while (arrived.size() < 20000) {
            const std::string frame = box.hears();
            ASSERT_EQ(frame_stream(frame), 1U);
            arrived += frame_payload(frame);
        }
        EXPECT_EQ(arrived, std::string(20000, 'b'));
        box.says(echo_answer(1 + FIRST) + echo_answer(1 + SECOND) + frame_bytes(DATA, 1, OK_X));
        EXPECT_TRUE(read_with_end(user).ends_with(OK_X));
        EXPECT_EQ(box.hears(), frame_bytes(CLOSE_STREAM, 1));
    }
}

TEST(GwrelayGuard, AnEchoThatIsNeverAnsweredEndsWithTheRequest) {
    guarded box({"--answer-timeout=1.5"});
    const unique_fd unknown = box.user(GET_BOX), alive = box.user(GET_BOX);
    box.says(echo_answer(2 + FIRST));
    const std::string json = get(box.hub, "/status.json");
    EXPECT_TRUE(has(
        json, "\"open_streams\":2,\"kept_streams\":0,\"bytes_from_device\":0,\"bytes_to_device\":" +
                  std::to_string(2 * box.opening.size()) + ","))
        << json;
    EXPECT_EQ(body(read_with_end(unknown)), "The device does not answer.\n");
    EXPECT_EQ(body(read_with_end(alive)), "Nothing on port 80 of the device answers.\n");
    box.hears(), box.hears();  // closed
    box.says(echo_answer(1 + FIRST) + echo_answer(1 + SECOND));
    EXPECT_TRUE(still_echoes(box.data));
}

}  // namespace
