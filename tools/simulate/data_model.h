// data_model.h - what must hold of a data connection, by a second, simpler account of its rules.
//
// The model sees what the server's bytes say, what services say, and every call that the daemon
// makes; from these it knows which frames wait in which order, what waits for which service, how
// much memory that takes, and when heartbeats are due. Whatever the daemon does otherwise is a
// fault. Of the daemon it reads only the counter of bytes received, which tells how far it has
// come with what has arrived, whether it is throwing bytes away, and the figures that it checks.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "connection/gwa_connection_data_record.h"
#include "link_model.h"
#include "network.h"

constexpr int QUARTER = 0x20000 / 4;   // of what may wait in the socket
constexpr size_t FRAMES_READY = 16;    // for the next pass
constexpr size_t FRAMES_IN_TURN = 8;   // that turns may add, whatever else waits
constexpr size_t FRAMES_AT_ONCE = 2;   // of a stream, out of its turn
constexpr uint32_t CEILING = 5 << 20;  // of memory, for the diagnostic too

// A stream of this connection: the bytes of one user's request and its answer.
struct model_stream {
    struct piece {
        std::string bytes;
        size_t taken = 0;
    };
    uint32_t id = 0;
    uint64_t number = 0;  // of all streams ever: ids come again
    uint32_t priority = 0;
    tcp_socket* socket = nullptr;
    std::deque<piece> waiting;  // payloads for the service
    uint64_t said = 0;          // bytes that the service has said and the daemon has read
    int32_t last_activity = 0;
    bool refused_by_poller = false;
    bool was_stuck = false;
    uint64_t left = 0;    // for the service to take, at the last look
    int passed_over = 0;  // rounds in which it was the turn of others, and not its own

    uint64_t bytes_waiting() const {
        uint64_t bytes = 0;
        for (const piece& one : waiting) {
            bytes += one.bytes.size() - one.taken;
        }
        return bytes;
    }
    uint64_t bytes_left() const { return bytes_waiting() + socket->sent.size(); }
};

struct model_frame {
    enum class kind : uint8_t { STREAM, ANSWER, HEARTBEAT } kind;
    std::string bytes;
    size_t sent = 0;
    uint32_t priority = 0;
    uint32_t stream_id = 0;
    uint64_t stream_number = 0;
    uint64_t offset = 0;  // of its payload in what the service has said
    uint32_t cost = 0;
    bool in_turn = false;  // it can only have been read when it was its stream's turn
    int32_t queued_at = 0;
};

class data_model : public network_watcher {
   public:
    data_model(gwa_connection_data* connection, tcp_socket& server);

    // Around each round; `goes_on` is what it has returned.
    void round_begins();
    void round_ended(bool goes_on);
    // Something happens that the daemon could not foresee: it may look at it one wait later.
    void surprised() { excused = true, idle_wakeups = 0; }
    void outside_event() { idle_wakeups = 0; }
    // Everything has been taken and read, as far as anybody can tell from outside.
    bool is_quiet() const;
    void must_be_finished() const;

    const model_stream* stream(uint32_t id) const;
    template <typename Action>
    void each_service(Action action) {
        for (auto& [id, stream] : streams) {
            action(*stream.socket);
        }
    }
    tcp_socket* server() const { return remote; }
    uint32_t next_heartbeat() const { return heartbeat_seq; }
    uint32_t ballast = 0;
    void may_close(const char* reason);

    // network_watcher
    void before(call what, tcp_socket* socket) override;
    void opened(tcp_socket* socket) override;
    void connected(tcp_socket& socket, bool success) override;
    void received(tcp_socket& socket, size_t wanted, std::string_view bytes, int error) override;
    void sent(tcp_socket& socket, std::string_view offered, ssize_t taken, int error) override;
    void looked(tcp_socket& socket, int queued) override;
    void registered(tcp_socket& socket, bool success) override;
    void closing(tcp_socket& socket) override;
    void info_failed() override { link.is_busy(); }
    void waits(int timeout_ms) override;
    void wait_failed(int error) override;

   private:
    enum class input : uint8_t { HEADER, PAYLOAD, HEARTBEAT, DISCARD, EXTRA_DISCARD };

    gwa_connection_data* conn;
    tcp_socket* remote;

    // Input.
    byte_queue unread;  // received by the daemon, not read by it yet
    input reading = input::HEADER;
    uint32_t want = 16;
    uint32_t stream_id = 0;    // of the current frame
    uint64_t counted = 0;      // bytes that the daemon has counted when it has come so far
    int64_t begun_s = -1;      // when the step had to wait first
    bool ended_early = false;  // the extra discard is to end without its rest
    struct opening_stream {
        bool wanted = false;
        tcp_socket* socket = nullptr;
        uint32_t id = 0;
        uint32_t priority = 0;
        std::string payload;
        int32_t since = 0;
    } opening;

    std::map<uint32_t, model_stream> streams;
    std::set<uint32_t> gone;
    std::vector<tcp_socket*> to_close;  // of streams that the server has closed
    std::vector<model_stream> closed;   // by the daemon, in this round
    // While uploads are full: the looks at who takes something.
    struct {
        bool on = false;  // since an earlier round
        int looks = 0;
        int32_t last = 0;
        bool spoilt = false;   // the last one has failed on purpose
        bool seen = false;     // there is one in this round,
        bool fails = false;    // which fails
        int unseen = 0;        // rounds in a row that should have begun with one
        bool gave_up = false;  // a stream, in this round
    } hold;
    bool progressed = false;  // the daemon has read on in this round

    // Output.
    std::deque<model_frame> queue;
    std::map<uint64_t, uint64_t> left;  // by stream: the offset of what leaves next
    uint32_t heartbeat_seq;
    uint32_t heartbeat_resp;
    int32_t last_out, last_in, last_check;
    int last_look = 0;

    link_model link;

    // Of the current round.
    bool server_is_gone = false;  // it has acknowledged nothing for so long
    bool others_read = false;     // services, in their turn
    size_t turn_streams = 0;      // of the turns that are counted
    bool waiting_begins = false;  // the wait has not been reached yet
    bool excused = true;
    bool moved = false;  // something has come or gone
    int idle_wakeups = 0;
    uint64_t events_before = 0;
    bool waited = false;
    const char* close_reason = nullptr;
    bool over = false;  // the connection is being freed, and has forgotten its input

    void catch_up();
    bool step_done(uint64_t target);
    void header_done(std::string_view header);
    void begin(input what, uint32_t bytes);
    void extra_discard_ended();
    void data_came(const std::string& payload);
    void request_came(const std::string& payload);
    void answer(uint32_t id, uint32_t priority, const std::string& status, const std::string& body);
    size_t frames_in_turn() const;
    bool needs_turn(const model_stream& stream) const;
    void judge_counts();
    bool turns_have_room() const;
    void stream_closed(uint32_t id);
    void remote_received(std::string_view bytes, int error);
    void remote_sent(std::string_view offered, ssize_t taken, int error);
    void input_is_late();
    void frame_left(const model_frame& frame);
    void enqueue(model_frame frame);
    void probe();
    void heartbeat_build(bool at_front);
    void drop_stale();
    void judge_closed_streams();
    void judge_turns();
    bool is_stuck(const model_stream& stream) const;
    bool looks_in_this_round() const;
    void judge_hold(bool full);
    model_stream* stream_of(const tcp_socket& socket);
    size_t frames() const;
    uint64_t waiting_bytes() const;
    uint32_t memory() const;
    uint32_t memory_with_request(size_t payload_size) const;  // while it is looked at
    bool uploads_full() const;
    void work_of_server_waits(int timeout_ms) const;
    void work_of_output_waits(int timeout_ms) const;
    void work_of_services_waits(int timeout_ms) const;
};
