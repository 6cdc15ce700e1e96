// Much data both ways at once on one data connection.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <random>

#include "box.h"
#include "peer.h"
#include "support/service.h"

namespace {

using steady = std::chrono::steady_clock;
constexpr size_t BULK = 32 << 20;
constexpr uint32_t DOWN = 1, UP = 2, FIRST_ECHO = 10;
constexpr std::chrono::seconds BULK_PATIENCE{60};

std::string noise(uint32_t seed) {
    std::string bytes(BULK, '\0');
    std::mt19937 random(seed);
    for (char& byte : bytes) {
        byte = static_cast<char>(random());
    }
    return bytes;
}

// Echo requests that are on their way: when each was written, and the longest time one took.
struct echo_times {
    static constexpr uint32_t COUNT = 16;
    std::array<std::atomic<steady::time_point>, COUNT> asked{};
    uint32_t answered = 0;
    steady::duration longest{};
};

// Writes the upload, an echo request after each equal share of it.
void upload_write(int data, const std::string& bytes, echo_times& echoes) {
    const size_t share = BULK / echo_times::COUNT;
    uint32_t asked = 0;
    for (size_t at = 0; at < BULK; at += PAYLOAD_MAX) {
        write_all(data, frame_bytes(DATA, UP, std::string_view(bytes).substr(at, PAYLOAD_MAX)),
                  BULK_PATIENCE);
        if (at >= share * asked) {
            echoes.asked[asked] = steady::now();
            write_all(data, debug_frame(FIRST_ECHO + asked++, "echo"), BULK_PATIENCE);
        }
    }
}

// Reads until the download and every echo have come.
std::string download_read(int data, echo_times& echoes) {
    std::string bytes;
    while (bytes.size() < BULK || echoes.answered < echo_times::COUNT) {
        const std::optional<frame> next = frame_read(data, BULK_PATIENCE);
        if (!next) {
            break;
        }
        if (next->stream == DOWN) {
            bytes += next->payload;
        } else if (next->stream >= FIRST_ECHO) {
            const auto took = steady::now() - echoes.asked[next->stream - FIRST_ECHO].load();
            echoes.longest = std::max(echoes.longest, took);
            ++echoes.answered;
        }
    }
    return bytes;
}

}  // namespace

TEST(BulkTransfer, GoesBothWaysWhileTheMaintenancePortAnswers) {
    const std::string down = noise(1), up = noise(2);
    std::string uploaded;
    local_service sender([&](int fd) {
        read_until(fd, "\r\n\r\n");
        write_all(fd, down, BULK_PATIENCE);
        read_to_end(fd);
    });
    local_service taker([&](int fd) {
        read_until(fd, "\r\n\r\n");
        uploaded = read_exact(fd, BULK, BULK_PATIENCE);
    });
    peer server;
    box device(server.manager.port, "3");
    const peer::session session = server.relay();
    const int data = session.data.get();
    const int buffer = 1 << 17;  // or a request would wait behind megabytes of our own
    setsockopt(data, SOL_SOCKET, SO_SNDBUF, &buffer, sizeof buffer);

    const auto start = steady::now();
    ASSERT_TRUE(
        write_all(data, request_frame(DOWN, sender.port()) + request_frame(UP, taker.port())));
    echo_times echoes;
    std::thread writer([&] { upload_write(data, up, echoes); });
    const std::string downloaded = download_read(data, echoes);
    writer.join();
    EXPECT_TRUE(eventually([&] { return taker.ended() == 1; }, BULK_PATIENCE));
    const std::chrono::duration<double> took = steady::now() - start;
    printf("%.0f MiB/s each way, longest echo %.3f s\n", double{BULK >> 20} / took.count(),
           std::chrono::duration<double>(echoes.longest).count());

    EXPECT_TRUE(downloaded == down) << downloaded.size() << " bytes came";
    EXPECT_TRUE(uploaded == up) << uploaded.size() << " bytes arrived";
    EXPECT_EQ(echoes.answered, echo_times::COUNT);
    EXPECT_LT(echoes.longest, std::chrono::seconds{1});
}
