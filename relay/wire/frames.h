// frames.h - the wire format: a 16-byte header, big-endian, and at most 8176 bytes of payload.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

constexpr size_t FRAME_HEADER = 16;
constexpr size_t FRAME_PAYLOAD_MAX = 8176;
constexpr size_t FRAME_MAX = FRAME_HEADER + FRAME_PAYLOAD_MAX;

enum class command : uint16_t {
    NONE,
    DATA,
    HEARTBEAT,
    DEVICE_INFO,
    CLOSE_STREAM,
    LOGIN_ANSWER,
    CLOSE_CONNECTION,
    DATA_ORDER,
    SESSION_ID,
    STATUS,
    REPORT_TIMES,
    PRIVACY,
    PORT_INFO
};
const char* command_name(command code);

struct frame {
    uint8_t version = 1;
    command code = command::NONE;
    uint32_t flag = 1;
    uint32_t stream_id = 0;
    std::string_view payload = {};  // borrowed
};

// Writes the 16 bytes that stand in front of the frame's payload.
void frame_header(char* to, const frame& whole);
void frame_append(std::string& to, const frame& whole);

std::string be32(uint32_t value);
uint32_t load_be32(const char* from);

// Cuts what arrives into frames without copying payloads: they lie in the buffer until the next
// call of room().
class frame_input {
   public:
    enum class result { FRAME, INCOMPLETE, BAD };

    explicit frame_input(size_t size) : buffer(new char[size]), capacity(size) {}

    std::span<char> room();  // where to receive; never empty
    void received(size_t count) { end += count; }
    result take(frame& to);
    const std::string& error() const { return reason; }  // why a frame was BAD

   private:
    result take_report_head(frame& to);

    std::unique_ptr<char[]> buffer;
    size_t capacity, begin = 0, end = 0;
    uint32_t unlabelled_stream = 0;  // of the empty Data frame that was taken last, if one was
    std::string reason;
};
