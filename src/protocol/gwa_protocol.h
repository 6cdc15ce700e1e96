// gwa_protocol.h - the frame header and the command set shared by control and data connections.
//
// A frame is a 16-byte header followed by a payload of at most 8176 bytes. Headers are built and
// sent in network order; a received one is loaded, checked and converted once.
//
// Threads: pure functions apart from logging.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t GWA_HEADER_SIZE = 16;
constexpr size_t GWA_PAYLOAD_MAX = 8176;
constexpr size_t GWA_FRAME_MAX = 8192;
static_assert(GWA_HEADER_SIZE + GWA_PAYLOAD_MAX == GWA_FRAME_MAX, "a whole frame fills one buffer");
constexpr size_t GWA_HEARTBEAT_PAYLOAD = 4;  // the sequence number
constexpr size_t GWA_HEARTBEAT_SIZE = GWA_HEADER_SIZE + GWA_HEARTBEAT_PAYLOAD;

enum class gwa_command : uint16_t {
    NONE = 0,
    DATA = 1,
    HEARTBEAT = 2,
    REPORT_DEVICE_INFO = 3,
    CLOSE_STREAM = 4,
    RESPONSE_DEVICE_INFO = 5,
    CLOSE_CONNECTION = 6,
    NEW_DATA_CONNECTION = 7,
    ALLOC_SESSION_ID = 8,
    REPORT_STATUS = 9,
    CONTROL_REPORTING = 10,
    SET_PRIVACY_DATA = 11,
    REPORT_PORT_INFO = 12,
};

// The version byte is a fixed value per kind of frame; receivers accept any of 1 to 3.
constexpr uint8_t GWA_VERSION_PLAIN = 1;    // stream data, session id, status and port reports
constexpr uint8_t GWA_VERSION_DATA = 2;     // heartbeats, the login of a data connection
constexpr uint8_t GWA_VERSION_CONTROL = 3;  // the login of the control connection
constexpr uint32_t GWA_FLAG_STREAM = 0;     // on stream data
constexpr uint32_t GWA_FLAG_COMMAND = 1;    // on every other frame

struct gwa_header {  // as on the wire; multi-byte fields stay big-endian until they are checked
    uint8_t version, head_size;
    uint16_t command;
    uint32_t flag, stream_id, length;
};
static_assert(sizeof(gwa_header) == GWA_HEADER_SIZE);

// Writes a header in network order to 16 bytes at any address.
void gwa_protocol_build(uint8_t* to, uint8_t version, gwa_command command, uint32_t flag,
                        uint32_t stream_id, uint32_t length);
// The 20-byte heartbeat with its sequence number.
void gwa_protocol_build_heartbeat(uint8_t* to, uint32_t sequence);

// Copies 16 received bytes into a header, still in network order.
void gwa_protocol_load(const uint8_t* from, gwa_header* header);
// Accepts a loaded header and converts it in place to host order. 0, or -1 with the reason logged.
int gwa_protocol_check(gwa_header* header);
// At verbose level 7 exactly, dumps the header at `frame`, in network order and at any address. For
// command 3 it also prints the text behind the header, so the buffer must be terminated there.
void gwa_protocol_show(const uint8_t* frame);
// 1 when the frame at `frame`, in network order, is a well-formed heartbeat, else 0.
int gwa_protocol_is_heartbeat(const uint8_t* frame);
