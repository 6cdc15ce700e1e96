// What follows the opening of a stream, so that a dead port neither costs others their data nor its
// user his time.

#include "gwrelay_fixture.h"

namespace {

// Data frames of streams that no user has.
constexpr uint32_t FIRST = 1U << 30, SECOND = 1U << 31;
const std::string ECHO_ANSWER =
    "HTTP/1.1 200 OK\r\nContent-Type:text/plain\r\nContent-Length:4\r\n\r\necho";
const std::string OK_X = "HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\nx";

std::string echo_answer(uint32_t stream) { return frame_bytes(DATA, stream, ECHO_ANSWER); }

struct guarded {
    relay hub;
    unique_fd data = data_login(hub, "box");
    std::string opening;  // the payload of the last one's frame

    explicit guarded(const strings& options = {}) : hub(options) {}
    std::string hears() const { return frame_read(data.get()); }
    bool says(const std::string& frames) const { return write_all(data.get(), frames); }
    // A request that is to become that stream, its two echo requests included.
    unique_fd request(uint32_t stream, const std::string& sent) {
        unique_fd user = user_sends(hub, sent);
        const std::string frame = hears();
        opening = frame_payload(frame);
        EXPECT_EQ(frame, frame_bytes(DATA, stream, opening));
        const std::string echo =
            "GET /?x-qv-devid=box&x-qv-port=10010&x-qv-gwad-opt=echo&x-qv-pri=2147483647 "
            "HTTP/1.1\r\nX-Pad: 0";
        const std::string end = "\r\n\r\n";
        const size_t more = opening.size() - HEADER_SIZE - echo.size() - end.size();
        EXPECT_EQ(hears(), frame_bytes(DATA, FIRST + stream, echo + std::string(more, '0') + end));
        EXPECT_EQ(hears(), frame_bytes(DATA, SECOND + stream, echo + end));
        return user;
    }
};

TEST(GwrelayGuard, IsAsLongAsTheOpeningFrameCarries) {
    constexpr size_t SHORTEST = 114;  // an echo request with its frame header
    guarded device;
    uint32_t stream = 0;
    for (size_t size = 0; size < 9000; size += size < 60 ? 1 : 1990) {
        const std::string cookie = "Cookie: " + std::string(size, 'c');
        device.request(++stream, "GET /box/80/ HTTP/1.1\r\n" + cookie + "\r\n\r\n");
        const std::string whole = "GET /?x-qv-devid=box&x-qv-port=80 HTTP/1.1\r\n" + cookie +
                                  "\r\nConnection: close\r\n\r\n";
        if (whole.size() < SHORTEST) {
            EXPECT_TRUE(device.opening.starts_with(whole.substr(0, whole.size() - 2) + "X-Pad: 0"));
            EXPECT_TRUE(device.opening.ends_with("0\r\n\r\n"));
        } else {
            EXPECT_EQ(device.opening, whole.substr(0, PAYLOAD_MAX));
        }
        device.says(frame_bytes(DATA, stream, OK_X));
        if (whole.size() > PAYLOAD_MAX) {
            EXPECT_EQ(frame_payload(device.hears()), whole.substr(PAYLOAD_MAX));
        }
        EXPECT_EQ(device.hears(), frame_bytes(CLOSE_STREAM, stream));
    }
}

TEST(GwrelayGuard, ADeadPortIsToldAtOnceAndItsBodyIsNeverSent) {
    guarded device;
    const std::string body(10000, 'b');
    const auto began = std::chrono::steady_clock::now();
    for (uint32_t stream = 1; stream <= 5; ++stream) {
        const unique_fd user = device.request(
            stream, "POST /box/80/ HTTP/1.1\r\nContent-Length: 20000\r\n\r\n" + body);
        write_all(user.get(), body);
        EXPECT_TRUE(stays_silent(device.data.get(), A_MOMENT / 2));
        device.says(echo_answer(stream + SECOND));
        const std::string answer = read_with_end(user);
        EXPECT_TRUE(answer.starts_with("end:HTTP/1.1 502 Bad Gateway\r\n")) << answer;
        EXPECT_TRUE(answer.ends_with("\nNothing listens on port 80 of the device.\n")) << answer;
        EXPECT_EQ(device.hears(), frame_bytes(CLOSE_STREAM, stream));
    }
    EXPECT_TRUE(still_echoes(device.data));
    EXPECT_LT(std::chrono::steady_clock::now() - began, 3 * A_SECOND);  // no tick of a second each
}

TEST(GwrelayGuard, ALivePortGetsTheRestAndItsUserNothingOfTheEchoes) {
    for (const std::string& alive :
         {echo_answer(1 + FIRST), frame_bytes(DATA, 1, "HTTP/1.1 100 \n\n")}) {
        guarded device;
        const std::string post = "POST /box/80/ HTTP/1.1\r\nContent-Length: 20000\r\n\r\n";
        const unique_fd user = device.request(1, post + std::string(12000, 'b'));
        device.says(alive);
        std::string body = device.opening.substr(device.opening.find("\r\n\r\n") + 4);
        write_all(user.get(), std::string(8000, 'b'));
        while (body.size() < 20000) {
            const std::string frame = device.hears();
            ASSERT_EQ(frame_stream(frame), 1U);
            body += frame_payload(frame);
        }
        EXPECT_EQ(body, std::string(20000, 'b'));
        device.says(echo_answer(1 + FIRST) + echo_answer(1 + SECOND) + frame_bytes(DATA, 1, OK_X));
        EXPECT_TRUE(read_with_end(user).ends_with(OK_X));
        EXPECT_EQ(device.hears(), frame_bytes(CLOSE_STREAM, 1));
    }
}

TEST(GwrelayGuard, AnEchoThatIsNeverAnsweredEndsWithTheRequest) {
    guarded device({"--answer-timeout=1"});
    const unique_fd unknown = device.request(1, GET_BOX), alive = device.request(2, GET_BOX);
    device.says(echo_answer(2 + FIRST));
    const std::string json = fetch(device.hub, "GET /status.json HTTP/1.1\r\n\r\n");
    const std::string figures = "\"open_streams\":2,\"bytes_from_device\":0,\"bytes_to_device\":" +
                                std::to_string(2 * device.opening.size()) + ",";
    EXPECT_NE(json.find(figures), std::string::npos) << json;
    EXPECT_TRUE(read_with_end(unknown).ends_with("\r\n\r\nThe device does not answer.\n"));
    EXPECT_TRUE(
        read_with_end(alive).ends_with("\r\n\r\nNothing on port 80 of the device answers.\n"));
    device.hears(), device.hears();  // closed
    device.says(echo_answer(1 + FIRST) + echo_answer(1 + SECOND));
    EXPECT_TRUE(still_echoes(device.data));
}

TEST(GwrelayGuard, IsNotForTheDeviceItselfAndCanBeSwitchedOff) {
    const guarded device;
    const unique_fd user = user_sends(device.hub, "GET /box/10010/ HTTP/1.1\r\n\r\n");
    EXPECT_EQ(frame_stream(device.hears()), 1U);
    EXPECT_TRUE(still_echoes(device.data));
    const one_stream without;
    EXPECT_TRUE(still_echoes(without.data));
}

}  // namespace
