#include "wire/frames.h"

#include <endian.h>

#include <cstring>
#include <iterator>

namespace {

constexpr uint8_t VERSION_MAX = 3;
constexpr const char* NAMES[] = {"None",         "Data",         "HeartBeat",        "Device Info",
                                 "Close Stream", "Login Answer", "Close Connection", "Data Order",
                                 "Session ID",   "Status",       "Report Times",     "Privacy Data",
                                 "Port Info"};

uint16_t load_be16(const char* from) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(from);
    return static_cast<uint16_t>(bytes[0] << 8 | bytes[1]);
}

// The HTTP head of a device's diagnostic: its frame says length 0, and the length stands inside the
// text instead, right after the status code. No version of a frame is this letter.
constexpr char REPORT_HEAD_MARK = 'H';
constexpr size_t REPORT_LENGTH_AT = 12, REPORT_HEAD_MIN = 16;
constexpr std::string_view REPORT_REASONS[] = {" OK\r\n", " File Not", " Gateway"};

}  // namespace

const char* command_name(command code) {
    return NAMES[static_cast<size_t>(code)];  // no other leaves or passes frame_input::take
}

std::string be32(uint32_t value) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8) {
        bytes += static_cast<char>(value >> shift & 0xff);
    }
    return bytes;
}

uint32_t load_be32(const char* from) {
    return static_cast<uint32_t>(load_be16(from)) << 16 | load_be16(from + 2);
}

void frame_header(char* to, const frame& whole) {
    const auto be32_to = [](char* at, uint32_t value) {
        value = htobe32(value);
        memcpy(at, &value, sizeof value);
    };
    to[0] = static_cast<char>(whole.version);
    to[1] = FRAME_HEADER;
    to[2] = '\0';  // every command fits into the low byte
    to[3] = static_cast<char>(whole.code);
    be32_to(to + 4, whole.flag);
    be32_to(to + 8, whole.stream_id);
    be32_to(to + 12, static_cast<uint32_t>(whole.payload.size()));
}

void frame_append(std::string& to, const frame& whole) {
    char header[FRAME_HEADER];
    frame_header(header, whole);
    to.append(header, sizeof header).append(whole.payload);
}

std::span<char> frame_input::room() {
    if (begin > 0) {
        memmove(buffer.get(), buffer.get() + begin, end - begin);  // at most part of one frame
        end -= begin;
        begin = 0;
    }
    return {buffer.get() + end, capacity - end};
}

// Puts back the four characters of the reason over which the device has written the length.
frame_input::result frame_input::take_report_head(frame& to) {
    char* const at = buffer.get() + begin;
    if (end - begin < REPORT_HEAD_MIN) {
        return result::INCOMPLETE;
    }
    const uint32_t length = load_be32(at + REPORT_LENGTH_AT);
    if (length < REPORT_HEAD_MIN || length > FRAME_PAYLOAD_MAX) {
        reason = "bad length of a diagnostic's head: " + std::to_string(length);
        return result::BAD;
    }
    if (end - begin < length) {
        return result::INCOMPLETE;
    }
    const std::string_view rest(at + REPORT_HEAD_MIN, length - REPORT_HEAD_MIN);
    for (const std::string_view known : REPORT_REASONS) {
        if (rest.starts_with(known.substr(sizeof(uint32_t)))) {
            known.copy(at + REPORT_LENGTH_AT, sizeof(uint32_t));
        }
    }
    to = {.code = command::DATA, .stream_id = unlabelled_stream, .payload = {at, length}};
    begin += length;
    unlabelled_stream = 0;
    return result::FRAME;
}

frame_input::result frame_input::take(frame& to) {
    const char* at = buffer.get() + begin;
    if (unlabelled_stream != 0 && end > begin && *at == REPORT_HEAD_MARK) {
        return take_report_head(to);
    }
    if (end - begin < FRAME_HEADER) {
        return result::INCOMPLETE;
    }
    const auto version = static_cast<uint8_t>(at[0]);
    const auto head_size = static_cast<uint8_t>(at[1]);
    const uint16_t code = load_be16(at + 2);
    const uint32_t length = load_be32(at + 12);
    if (version == 0 || version > VERSION_MAX || head_size != FRAME_HEADER || code == 0 ||
        code >= std::size(NAMES) || length > FRAME_PAYLOAD_MAX) {
        reason = "bad header: version " + std::to_string(version) + ", head size " +
                 std::to_string(head_size) + ", command " + std::to_string(code) + ", length " +
                 std::to_string(length);
        return result::BAD;
    }
    if (end - begin < FRAME_HEADER + length) {
        return result::INCOMPLETE;
    }
    to = {version,
          static_cast<command>(code),
          load_be32(at + 4),
          load_be32(at + 8),
          {at + FRAME_HEADER, length}};
    begin += FRAME_HEADER + length;
    unlabelled_stream = to.code == command::DATA && length == 0 ? to.stream_id : 0;
    return result::FRAME;
}
