#include "protocol/gwa_protocol.h"

#include <gtest/gtest.h>

#include <cstring>

#include "support/log_of.h"

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
        {{1, 16, 13, 8177}, "command not support 13\n"},
        {{1, 16, 0, 0}, "command not support 0\n"},
        {{1, 16, 1, 8177}, "head length is out of range 8177\n"}};
    for (const auto& [frame, fault] : samples) {
        gwa_header header;
        gwa_protocol_load(frame.bytes, &header);
        int result = 1;
        const std::string log = log_of([&] { result = gwa_protocol_check(&header); });
        EXPECT_EQ(result, *fault == '\0' ? 0 : -1) << fault;
        EXPECT_TRUE(log.ends_with(fault)) << log;
    }
}

TEST(ProtocolHeader, IsTheSameAtAnyAddress) {
    alignas(8) uint8_t buffer[GWA_HEADER_SIZE + 3];
    for (uint8_t* at = buffer; at < buffer + 4; at++) {
        gwa_protocol_build(at, 1, gwa_command::DATA, 0x01020304, 0x05060708, 9);
        gwa_header header;
        gwa_protocol_load(at, &header);
        EXPECT_EQ(gwa_protocol_check(&header), 0);
        EXPECT_EQ(header.flag, 0x01020304U);
        EXPECT_EQ(header.stream_id, 0x05060708U);
        EXPECT_EQ(header.length, 9U);
    }
}

TEST(ProtocolIsHeartbeat, WantsCommandLengthAndAGoodHeader) {
    EXPECT_EQ(gwa_protocol_is_heartbeat(sample_frame(1, 16, 2, 4).bytes), 1);
    for (const sample_frame& other : {sample_frame{1, 16, 2, 5}, {1, 16, 9, 4}, {4, 16, 2, 4}}) {
        EXPECT_EQ(gwa_protocol_is_heartbeat(other.bytes), 0);
    }
}

TEST(ProtocolShow, DumpsAtTheDebugLevelOnly) {
    const auto dump = [](uint16_t command, int level) {
        const sample_frame frame(3, 16, command, 9);
        return log_lines_of(level, [&] { gwa_protocol_show(frame.bytes); });
    };
    EXPECT_EQ(dump(3, GWA_LEVEL_DEBUG).at(2), "<7> commad    : 3 (Report Device Info)");
    EXPECT_EQ(dump(3, GWA_LEVEL_DEBUG).at(6), "<7> {\"a\":1}");
    EXPECT_EQ(dump(200, GWA_LEVEL_DEBUG).at(2), "<7> commad    : 200 (Invalide)");
    EXPECT_EQ(dump(200, GWA_LEVEL_DEBUG).back(), "<7> length    : 9") << "it brings no text";
    EXPECT_TRUE(dump(3, GWA_LEVEL_INFO).empty());
    gwa_log_level_set(GWA_LEVEL_DEBUG);
}
