#include "protocol/gwa_protocol.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <string_view>

#include "main/gwa_log.h"

namespace {

struct sample_frame {  // a header in network order, and a terminated text behind it
    uint8_t bytes[GWA_HEADER_SIZE + 8];
    sample_frame(uint8_t version, uint8_t head_size, uint16_t command, uint32_t length) {
        gwa_protocol_build(bytes, version, static_cast<gwa_command>(command), 1, 7, length);
        bytes[1] = head_size;
        memcpy(bytes + GWA_HEADER_SIZE, "{\"a\":1}", 8);
    }
};

}  // namespace

TEST(ProtocolCheck, AcceptsOrNamesTheFirstFault) {
    const std::pair<sample_frame, const char*> samples[] = {
        {{1, 16, 1, 0}, ""},
        {{3, 16, 12, 8176}, ""},
        {{0, 16, 1, 0}, "version not support 0\n"},
        {{4, 15, 1, 0}, "version not support 4\n"},
        {{1, 15, 0, 0}, "head size is invalid 15\n"},
        {{1, 17, 1, 0}, "head size is invalid 17\n"},
        {{1, 16, 13, 8177}, "command not support 13\n"},
        {{1, 16, 0, 0}, "command not support 0\n"},
        {{1, 16, 1, 8177}, "head length is out of range 8177\n"}};
    for (const auto& [frame, fault] : samples) {
        gwa_header header;
        gwa_protocol_load(frame.bytes, &header);
        testing::internal::CaptureStderr();
        EXPECT_EQ(gwa_protocol_check(&header), *fault == '\0' ? 0 : -1) << fault;
        EXPECT_NE(testing::internal::GetCapturedStderr().find(fault), std::string::npos) << fault;
    }
}

TEST(ProtocolHeader, IsTheSameAtAnyAddress) {
    constexpr std::string_view HEARTBEAT(
        "\x02\x10\x00\x02\x00\x00\x00\x01\x00\x00\x00\x00\x00\x00\x00\x04\xfe\xdc\xba\x98", 20);
    alignas(8) uint8_t buffer[GWA_HEARTBEAT_SIZE + 3];
    for (uint8_t* at = buffer; at < buffer + 4; at++) {
        gwa_protocol_build_heartbeat(at, 0xfedcba98);
        EXPECT_EQ(memcmp(at, HEARTBEAT.data(), HEARTBEAT.size()), 0);
        gwa_protocol_build(at, 1, gwa_command::DATA, 0x01020304, 0x05060708, 9);
        gwa_header header;
        gwa_protocol_load(at, &header);
        EXPECT_EQ(gwa_protocol_check(&header), 0);
        EXPECT_EQ(header.command, 1);
        EXPECT_EQ(header.flag, 0x01020304U);
        EXPECT_EQ(header.stream_id, 0x05060708U);
        EXPECT_EQ(header.length, 9U);
    }
}

TEST(ProtocolIsHeartbeat, WantsCommandLengthAndAGoodHeader) {
    const std::pair<sample_frame, int> samples[] = {{{1, 16, 2, 4}, 1},
                                                    {{1, 16, 2, 5}, 0},
                                                    {{1, 16, 2, 0}, 0},
                                                    {{1, 16, 9, 4}, 0},
                                                    {{4, 16, 2, 4}, 0}};
    for (const auto& [frame, expected] : samples) {
        EXPECT_EQ(gwa_protocol_is_heartbeat(frame.bytes), expected);
    }
}

TEST(ProtocolShow, DumpsAtTheDebugLevelOnly) {
    const auto dump = [](uint16_t command, int level) {
        gwa_log_level_set(level);
        testing::internal::CaptureStderr();
        gwa_protocol_show(sample_frame(3, 16, command, 9).bytes);
        gwa_log_level_set(GWA_LEVEL_DEBUG);
        return testing::internal::GetCapturedStderr();
    };
    const std::string known = dump(3, 7);
    for (const char* line : {"version   : 3\n", "size      : 16\n", "flag      : 0x00000001\n",
                             "commad    : 3 (Report Device Info)\n", "stream id : 7\n",
                             "length    : 9\n", "{\"a\":1}\n"}) {
        EXPECT_NE(known.find(std::string("<7> ") + line), std::string::npos) << line;
    }
    EXPECT_NE(dump(200, 7).find("<7> commad    : 200 (Invalide)\n"), std::string::npos);
    EXPECT_EQ(dump(3, 6) + dump(3, GWA_LOG_OFF), "");
}
