#include "users/upload.h"

#include <cerrno>

#include "users/exchange.h"

namespace {

constexpr size_t UPLOAD_FRAMES = 32;     // received at once
constexpr size_t INPUT_FRAMES = 2;       // of further requests
constexpr size_t INPUT_MAX = 64 * 1024;  // of them; then they wait with the user

void count_to_device(user_link& user, std::string_view bytes) {
    user.to_device += bytes.size();
    user.route->bytes_out += bytes.size();
    user.last_moved = steady::now();
}

frame data_frame(const user_link& user, std::string_view payload) {
    return {.code = command::DATA, .flag = 0, .stream_id = user.stream_id, .payload = payload};
}

// Frames for what is received from a user: the kernel puts it right behind where headers will be.
// One for all users, since nothing stays in it over a wait.
struct upload_frames {
    struct {
        char header[FRAME_HEADER], payload[FRAME_PAYLOAD_MAX];
    } frames[UPLOAD_FRAMES];
    iovec payloads[UPLOAD_FRAMES];

    upload_frames() {
        for (size_t i = 0; i < UPLOAD_FRAMES; ++i) {
            payloads[i] = {frames[i].payload, FRAME_PAYLOAD_MAX};
        }
    }
    // What has been received goes to the device, or waits: it is a further request.
    void pass_on(user_link& user, size_t size, bool uploads) {
        size_t body = 0;
        for (const iovec* each = payloads; size > 0; ++each) {
            const std::string_view part(static_cast<char*>(each->iov_base),
                                        std::min(size, each->iov_len));
            size -= part.size();
            if (uploads) {
                body += exchange_take_body(user, part).size();
            } else if (!user.unheard) {
                user.input += part;
            }
        }
        if (body > 0) {
            send(user, body);
        }
    }

   private:
    void send(user_link& user, size_t size) {
        static_assert(sizeof *frames == FRAME_MAX, "so that they leave as one piece");
        size_t count = 0;
        for (size_t left = size; left > 0; left -= std::min(left, FRAME_PAYLOAD_MAX)) {
            auto& [header, payload] = frames[count++];
            const frame whole = data_frame(user, {payload, std::min(left, FRAME_PAYLOAD_MAX)});
            count_to_device(user, whole.payload);
            user.route->log_frame('<', whole);
            frame_header(header, whole);
        }
        iovec piece{frames, size + count * FRAME_HEADER};
        user.route->send_now({&piece, 1});
    }
};

}  // namespace

void upload_send(user_link& user, std::string_view bytes) {
    count_to_device(user, bytes);
    for (; !bytes.empty(); bytes.remove_prefix(std::min(bytes.size(), FRAME_PAYLOAD_MAX))) {
        user.route->send_frame(data_frame(user, bytes.substr(0, FRAME_PAYLOAD_MAX)));
    }
}

awaitable<void> upload_serve(std::shared_ptr<user_link> user) {
    static upload_frames buffer;
    bool more = false;  // the last receive has left some
    while (!user->closed && !user->user_ended) {
        asio::error_code failed;
        if (more) {
            co_await asio::post(user->socket.get_executor(), asio::use_awaitable);  // in turn
        } else {
            co_await user->socket.async_wait(tcp::socket::wait_read,
                                             asio::redirect_error(asio::use_awaitable, failed));
        }
        const std::shared_ptr<data_link> route = user->route;
        const bool uploads = route != nullptr && !user->swallows &&
                             (!user->request.complete() || user->response.switched());
        if (uploads ? user->port_is != port_state::ALIVE : user->input.size() > INPUT_MAX) {
            co_await user->changed.wait();  // a device would take the rest for a new request
            continue;
        }
        if (uploads && route->full()) {
            co_await route->changed.wait();  // the device takes less than he sends
            continue;
        }
        const size_t frames = uploads ? UPLOAD_FRAMES : INPUT_FRAMES;
        const ssize_t got = user->closed ? 0
                                         : readv(user->socket.native_handle(), buffer.payloads,
                                                 static_cast<int>(frames));
        if (got > 0) {
            buffer.pass_on(*user, static_cast<size_t>(got), uploads);
        }
        more = got == static_cast<ssize_t>(frames * FRAME_PAYLOAD_MAX);
        user->user_ended = got == 0;
        if (got < 0 && errno != EAGAIN) {
            user->close();  // a reset, unlike an end, means both ways
        }
        user->changed.notify();
    }
}
