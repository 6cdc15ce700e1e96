// Much data both ways at once on one data connection.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>

#include "peer.h"
#include "support/service.h"

namespace {

using steady = std::chrono::steady_clock;
constexpr size_t BULK = 32 << 20;
constexpr uint32_t DOWN = 1, UP = 2, FIRST_ECHO = 10;
constexpr std::chrono::seconds BULK_PATIENCE{60};
// A pause of the poll time-out for every read would make it 400 s.
constexpr std::chrono::seconds QUICK{40};

constexpr uint32_t ECHOES = 16;

// Writes the upload, an echo request after each equal share of it; says when each was written.
void upload_write(int data, const std::string& bytes, std::atomic<steady::time_point>* asked) {
    uint32_t echo = 0;
    for (size_t at = 0; at < BULK; at += PAYLOAD_MAX) {
        write_all(data, frame_bytes(DATA, UP, std::string_view(bytes).substr(at, PAYLOAD_MAX)),
                  BULK_PATIENCE);
        if (at >= BULK / ECHOES * echo) {
            asked[echo] = steady::now();
            write_all(data, debug_frame(FIRST_ECHO + echo++, "echo"), BULK_PATIENCE);
        }
    }
}

}  // namespace

TEST(BulkTransfer, GoesBothWaysWhileTheMaintenancePortAnswers) {
    const std::string down = noise(BULK, 1), up = noise(BULK, 2);
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
    session link("3");
    ASSERT_TRUE(link.relay());
    const int data = link.data.get();
    const int buffer = 1 << 17;  // or a request would wait behind megabytes of our own
    setsockopt(data, SOL_SOCKET, SO_SNDBUF, &buffer, sizeof buffer);

    const auto start = steady::now();
    ASSERT_TRUE(
        write_all(data, request_frame(DOWN, sender.port()) + request_frame(UP, taker.port())));
    std::atomic<steady::time_point> asked[ECHOES];
    std::thread writer([&] { upload_write(data, up, asked); });
    std::string downloaded;
    uint32_t answered = 0;
    std::chrono::duration<double> longest{};
    while (downloaded.size() < BULK || answered < ECHOES) {
        const std::string next = frame_read(data, BULK_PATIENCE);
        if (next.empty()) {
            break;
        }
        if (const uint32_t stream = frame_stream(next); stream == DOWN) {
            downloaded.append(next, HEADER_SIZE);
        } else if (stream >= FIRST_ECHO) {
            longest = std::max(longest, std::chrono::duration<double>(
                                            steady::now() - asked[stream - FIRST_ECHO].load()));
            ++answered;
        }
    }
    writer.join();
    EXPECT_TRUE(eventually([&] { return taker.ended() == 1; }, BULK_PATIENCE));
    const std::chrono::duration<double> took = steady::now() - start;
    printf("%.0f MiB/s each way, longest echo %.3f s\n", double{BULK >> 20} / took.count(),
           longest.count());

    EXPECT_TRUE(downloaded == down) << downloaded.size() << " bytes came";
    EXPECT_TRUE(uploaded == up) << uploaded.size() << " bytes arrived";
    EXPECT_EQ(answered, ECHOES);
    EXPECT_LT(longest, std::chrono::seconds{1});
    EXPECT_LT(took, QUICK);
}
