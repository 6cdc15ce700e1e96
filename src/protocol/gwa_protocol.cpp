#include "protocol/gwa_protocol.h"

#include <arpa/inet.h>

#include <cstring>

#include "main/gwa_log.h"
#include "runtime/gwa_types.h"

namespace {

constexpr uint8_t VERSION_MIN = 1;
constexpr uint8_t VERSION_MAX = 3;

// Where the fields of a header in network order lie.
constexpr size_t AT_HEAD_SIZE = 1;
constexpr size_t AT_COMMAND = 2;
constexpr size_t AT_FLAG = 4;
constexpr size_t AT_STREAM_ID = 8;
constexpr size_t AT_LENGTH = 12;

constexpr const char* COMMAND_NAMES[] = {
    "NONE",
    "Data",
    "HeartBeat",
    "Report Device Info",
    "Close Stream Transmission",
    "Response Device Info",
    "Close TCP Connection",
    "New TCP Data Connection",
    "Alloc Session ID",
    "Report Status",
    "Control Reporting status",
    "Set Privacy Data",
    "Report Port Info",
};
constexpr size_t COMMAND_COUNT = sizeof COMMAND_NAMES / sizeof COMMAND_NAMES[0];
constexpr auto COMMAND_FIRST = static_cast<uint16_t>(gwa_command::DATA);
constexpr auto COMMAND_LAST = static_cast<uint16_t>(gwa_command::REPORT_PORT_INFO);
static_assert(COMMAND_COUNT == COMMAND_LAST + 1, "every command has a name");

}  // namespace

void gwa_protocol_build(uint8_t* to, uint8_t version, gwa_command command, uint32_t flag,
                        uint32_t stream_id, uint32_t length) {
    to[0] = version;
    to[AT_HEAD_SIZE] = GWA_HEADER_SIZE;
    store_be16(to + AT_COMMAND, static_cast<uint16_t>(command));
    store_be32(to + AT_FLAG, flag);
    store_be32(to + AT_STREAM_ID, stream_id);
    store_be32(to + AT_LENGTH, length);
}

void gwa_protocol_build_heartbeat(uint8_t* to, uint32_t sequence) {
    gwa_protocol_build(to, GWA_VERSION_DATA, gwa_command::HEARTBEAT, GWA_FLAG_COMMAND, 0,
                       GWA_HEARTBEAT_PAYLOAD);
    store_be32(to + GWA_HEADER_SIZE, sequence);
}

void gwa_protocol_load(const uint8_t* from, gwa_header* header) {
    memcpy(header, from, sizeof *header);
}

int gwa_protocol_check(gwa_header* header) {
    if (header->version < VERSION_MIN || header->version > VERSION_MAX) {
        GWA_LOG(ERROR, "version not support %d", header->version);
        return -1;
    }
    if (header->head_size != GWA_HEADER_SIZE) {
        GWA_LOG(ERROR, "head size is invalid %d", header->head_size);
        return -1;
    }
    header->command = ntohs(header->command);
    if (header->command < COMMAND_FIRST || header->command > COMMAND_LAST) {
        GWA_LOG(ERROR, "command not support %d", header->command);
        return -1;
    }
    header->flag = ntohl(header->flag);
    header->stream_id = ntohl(header->stream_id);
    header->length = ntohl(header->length);
    if (header->length > GWA_PAYLOAD_MAX) {
        GWA_LOG(ERROR, "head length is out of range %u", header->length);
        return -1;
    }
    return 0;
}

void gwa_protocol_show(const uint8_t* frame) {
    if (frame == nullptr || !gwa_log_enabled(GWA_LEVEL_DEBUG)) {
        return;  // the debug level is the highest there is: enabled means exactly this level
    }
    const gwa_log_gather gathered;
    const uint16_t command = load_be16(frame + AT_COMMAND);
    GWA_LOG(DEBUG, "version   : %d", frame[0]);
    GWA_LOG(DEBUG, "size      : %d", frame[AT_HEAD_SIZE]);
    GWA_LOG(DEBUG, "commad    : %d (%s)", command,
            command < COMMAND_COUNT ? COMMAND_NAMES[command] : "Invalide");
    GWA_LOG(DEBUG, "flag      : 0x%08x", load_be32(frame + AT_FLAG));
    GWA_LOG(DEBUG, "stream id : %u", load_be32(frame + AT_STREAM_ID));
    GWA_LOG(DEBUG, "length    : %u", load_be32(frame + AT_LENGTH));
    if (command == static_cast<uint16_t>(gwa_command::REPORT_DEVICE_INFO)) {
        GWA_LOG(DEBUG, "%s", reinterpret_cast<const char*>(frame + GWA_HEADER_SIZE));
    }
}

int gwa_protocol_is_heartbeat(const uint8_t* frame) {
    gwa_header header;
    gwa_protocol_load(frame, &header);
    return gwa_protocol_check(&header) == 0 &&
                   header.command == static_cast<uint16_t>(gwa_command::HEARTBEAT) &&
                   header.length == GWA_HEARTBEAT_PAYLOAD
               ? 1
               : 0;
}
