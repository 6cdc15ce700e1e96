// websocket.h - follows what one side sends over a WebSocket, to learn when it has taken leave.
// Nobody is told of the service's end otherwise.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

class websocket_side {
   public:
    void take(std::string_view bytes);
    bool closed() const { return is_closed; }  // its close frame has passed, to the last byte

   private:
    size_t header_size() const;
    void after_header();

    std::array<uint8_t, 14> header{};
    size_t known = 0;   // bytes of the header
    uint64_t left = 0;  // of the payload
    bool closing = false, is_closed = false;
};
