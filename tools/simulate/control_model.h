// control_model.h - what must hold of the control connection.
//
// The model reads the server's bytes as the daemon receives them, and knows by itself how many it
// has to ask for next; so each of its receives shows whether it is in step. It knows which frames
// wait in which order, when a heartbeat is due and answered, what each command has to bring about,
// and what the daemon has to restart for.
#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include "connection/gwa_connection_cntl_record.h"
#include "link_model.h"
#include "network.h"

class control_model : public network_watcher {
   public:
    control_model(gwa_connection_cntl* connection, tcp_socket& server);

    void report_queued(std::string bytes);
    // The daemon does something that a frame of the server asks for, or restarts itself.
    void effect(const std::string& what);
    void restarted();
    tcp_socket* server() const { return remote; }
    bool is_quiet() const;
    void must_be_finished() const;

    // network_watcher
    void before(call what, tcp_socket* socket) override;
    void opened(tcp_socket*) override { broken("the control connection makes a socket"); }
    void received(tcp_socket& socket, size_t wanted, std::string_view bytes, int error) override;
    void sent(tcp_socket& socket, std::string_view offered, ssize_t taken, int error) override;
    void looked(tcp_socket& socket, int queued) override;
    void info_failed() override { link.is_busy(); }
    void waits(int timeout_ms) override;
    void wait_failed(int error) override;

   private:
    enum class input : uint8_t { HEADER, HEARTBEAT, PAYLOAD, DISCARD };
    struct frame {
        std::string bytes;
        bool heartbeat = false;
        size_t sent = 0;
        int waits = 0;  // that it has been passed over in
    };

    gwa_connection_cntl* cntl;
    tcp_socket* remote;

    input reading = input::HEADER;
    size_t want = 0;
    std::string have;      // of the current step
    uint32_t code = 0;     // of the current frame
    int64_t moved_us = 0;  // when the last bytes of a header came
    int64_t limit_us = 0;  // of the current step, by the clock that nobody sets
    int64_t limit_wall_us = 0;
    bool tried = false;    // a receive of the current step has found nothing
    std::string expected;  // effect that the last frame must have

    std::deque<frame> queue;
    uint32_t heartbeat_seq;
    bool answer_outstanding = false;
    int misses = 0;
    int32_t last_out, last_in;
    enum class silence : uint8_t { NONE, OUT, IN } built = silence::NONE;  // in this pass
    bool first_wait = true;
    const char* restart_reason = nullptr;
    link_model link;
    bool server_is_gone = false;  // it has acknowledged nothing for so long, at a look

    void begin(input what, size_t bytes, int64_t limit_s = 0);
    void frame_done();
    void step_failed();
    void give_up_late_step();
    void header_done();
    void payload_done();
    void heartbeat_answered();
    void answer_missed();
    silence silent() const;
    bool heartbeat_is_queued() const;
    void heartbeat_insert();
    void pass_ended();
    void must_have_restarted() const;
};
