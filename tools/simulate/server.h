// server.h - the simulated server's end of a connection, and the bytes that both ends speak: made
// here by hand, so that the daemon's own code for them is checked rather than trusted.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "network.h"

namespace wire {

constexpr size_t HEADER = 16;
constexpr size_t PAYLOAD_MAX = 8176;

enum command : uint16_t {
    DATA = 1,
    HEARTBEAT,
    DEVICE_INFO,
    CLOSE_STREAM,
    LOGIN_ANSWER,
    CLOSE_CONNECTION,
    ORDER,
    SESSION_ID,
    STATUS,
    REPORT_TIMES,
    PRIVACY,
    PORT_INFO
};

std::string number(uint32_t value);
uint32_t number_at(std::string_view bytes, size_t at);
std::string frame(uint16_t code, uint32_t stream = 0, std::string_view payload = {},
                  uint8_t version = 1);
inline std::string heartbeat(uint32_t sequence) { return frame(HEARTBEAT, 0, number(sequence), 2); }
// A header that is none, by the reason: version, its own size, command, length.
std::string bad_frame(int64_t reason, std::string_view payload);

}  // namespace wire

// Letters that are hardly ever the same twice.
std::string noise(size_t count);

class relay_server {
   public:
    explicit relay_server(tcp_socket& theirs) : socket(&theirs) {}

    void say(std::string_view bytes);
    void deliver(size_t count);  // of what has been said, as much as there is room for
    void take(size_t count);
    void end();
    void reset();
    void link(bool up);
    // Answers the heartbeats that have come, with a number that is wrong by so much.
    void answer(uint32_t wrong_by);
    bool has_said_all() const { return delivered == said.size(); }

   private:
    tcp_socket* socket;
    std::string said;
    size_t delivered = 0;  // of it
    bool ends = false;     // behind that
    bool is_gone = false;  // reset, which a silent link does not tell
    std::string heard;     // not a whole frame yet
    std::vector<uint32_t> heartbeats;
};
