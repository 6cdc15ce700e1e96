#include "users/guard.h"

#include "users/device_request.h"

void guard_lengthen(std::string& request, const device& owner) {
    const size_t least = FRAME_HEADER + device_echo_request(owner).size();
    if (request.size() < least) {
        constexpr std::string_view HEAD_END = "\r\n";
        request.insert(http_head_length(request) - HEAD_END.size(),
                       device_padding(least - request.size()));
    }
}

void guard_send(const user_link& user, size_t opening) {
    const auto ask = [&user](uint32_t id, size_t size) {
        const std::string request = device_echo_request(*user.owner, size);
        user.route->send_frame({.code = command::DATA,
                                .flag = 0,
                                .stream_id = user.stream_id + id,
                                .payload = request});
    };
    ask(GUARD_FIRST, opening - FRAME_HEADER);
    ask(GUARD_SECOND, 0);
}
