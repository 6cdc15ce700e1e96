#include "data_world.h"

#include <netinet/in.h>

#include <algorithm>
#include <cerrno>

#include "connection/gwa_connection.h"
#include "connection/gwa_connection_data_round.h"
#include "fail.h"
#include "login/gwa_login.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_util_time.h"

namespace {

constexpr int SETTLE_ROUNDS = 2000;
constexpr int SPEND_ROUNDS = 30000;
constexpr size_t SETTLE_ROOM = 1 << 17;
constexpr size_t BALLAST_MIN = 8192;  // smaller pieces are counted as larger ones

std::string request(const std::string& parameters) {
    return "GET /?" + parameters + " HTTP/1.1\r\n\r\n";
}

size_t all_or(int64_t count) { return count == 0 ? SIZE_MAX : static_cast<size_t>(count); }

}  // namespace

data_world::data_world() {
    static char device_id[GWA_DEVICE_ID_SIZE] = "box";
    gwa_device_id = device_id;
    gwa_login.local_address = INADDR_LOOPBACK;
    gwa_process_run = 1;
    gwa_connection_run = 1;
    gwa_connection_table_init();
    conn = &gwa_connections.data[0];
    blocks_before = memory_blocks;
    the_time = {START_S * 1'000'000, 0};
    gwa_now_refresh();
    the_network.failures = {};
    the_network.local_room = 1 << 17;
    the_network.events = 0;
    connect();
}

data_world::~data_world() { gwa_device_id = nullptr; }

// As the worker does after a login.
void data_world::connect() {
    the_network.failures = {};
    conn->order.taken = conn->order.serial;
    if (gwa_connection_data_init2(conn) != GWA_OK) {
        broken("the connection cannot be made");
    }
    tcp_socket& socket = the_network.login_socket(server_room);
    model = std::make_unique<data_model>(conn, socket);
    the_network.watcher = model.get();
    if (poll_add(&conn->poller, socket.fd, gwa_connection_data_remote_handle, conn,
                 &conn->socket) != GWA_OK) {
        broken("the socket cannot be registered");
    }
    conn->socket = socket.fd;
    conn->heartbeat.last_out_time = conn->heartbeat.last_in_time = conn->last_check_time =
        gwa_now_get();
    server = std::make_unique<relay_server>(socket);
}

// The connection is gone: nothing of it may be left.
void data_world::close() {
    if (gwa_connection_memory(conn) != model->ballast || conn->output.count != 0 ||
        conn->streams.count != 0 || conn->streams.waiting != 0 || !conn->streams.gone.empty()) {
        broken("a closed connection holds %u bytes", gwa_connection_memory(conn) - model->ballast);
    }
    if (the_network.open_count() != 0 || conn->socket != -1) {
        broken("a closed connection holds %zu descriptors", the_network.open_count());
    }
    const uint32_t ballast = model->ballast;
    connect();
    model->ballast = ballast;
}

bool data_world::round() {
    rounds_run++;
    model->round_begins();
    const bool goes_on = gwa_connection_data_round(conn) == gwa_step::GOES_ON;
    model->round_ended(goes_on);
    if (!goes_on) {
        close();
    }
    return goes_on;
}

void data_world::rounds(int64_t count) {
    while (count-- > 0 && round()) {
    }
}

void data_world::spend(int64_t ms) {
    const int64_t end_us = the_time.now_us + ms * 1000;
    for (int i = 0; i < SPEND_ROUNDS && the_time.now_us < end_us && round(); i++) {
    }
}

// ---- What the server says ----

void data_world::open(const step& one) {
    const auto [id, port, priority, extra] = one.with;
    server->say(wire::frame(
        wire::DATA, static_cast<uint32_t>(id),
        request("x-qv-devid=box&x-qv-port=" + std::to_string(network::FIRST_PORT + port) +
                "&x-qv-pri=" + std::to_string(priority)) +
            noise(static_cast<size_t>(extra))));
}

void data_world::flood(const step& one) {
    const std::string payload =
        noise(std::min(static_cast<size_t>(one.with[2]), wire::PAYLOAD_MAX));
    for (int64_t i = 0; i < one.with[1]; i++) {
        server->say(wire::frame(wire::DATA, static_cast<uint32_t>(one.with[0]), payload));
    }
}

void data_world::ask(const step& one) {
    const std::string end = "&x-qv-pri=" + std::to_string(one.with[2]);
    const std::string requests[] = {
        request("x-qv-devid=box&x-qv-port=10010&x-qv-gwad-opt=echo" + end),
        request("x-qv-devid=box&x-qv-port=10010&x-qv-gwad-opt=none" + end),
        request("x-qv-devid=box&x-qv-port=10010" + end),
        request("x-qv-devid=other&x-qv-port=8000" + end),
        request("x-qv-devid=box&x-qv-port=65535" + end),
        request("x-qv-devid=box" + end),
        request("x-qv-port=8000" + end),
        request("x-qv-devid=box&x-qv-port=10010&x-qv-gwad-opt=log" + end),
        request("x-qv-devid=box&x-qv-port=10010&x-qv-gwad-opt=log&loglv=-1" + end),
        "GET / HTTP/1.1",
        "no request at all, but long enough",
    };
    const size_t kind = static_cast<size_t>(one.with[1]) % std::size(requests);
    server->say(wire::frame(wire::DATA, static_cast<uint32_t>(one.with[0]), requests[kind]));
}

void data_world::command(const step& one) {
    const std::string payload =
        noise(std::min<size_t>(static_cast<size_t>(one.with[1]), wire::PAYLOAD_MAX));
    switch (one.with[0]) {
        case 0: return server->say(wire::frame(wire::LOGIN_ANSWER, 0, payload));
        case 1:
            return server->say(
                wire::frame(wire::HEARTBEAT, 0, payload));  // of a length that is none
        case 2: return server->say(wire::frame(wire::DATA, 1, ""));
        case 3: return server->say(wire::frame(wire::STATUS, 0, payload));
        case 4: return server->say(wire::frame(wire::HEARTBEAT, 0, std::string{"\1\2\3\4"}));
        case 5: return server->say(wire::frame(wire::CLOSE_CONNECTION, 0, ""));
        default: return server->say(wire::bad_frame(one.with[0], payload));
    }
}

// ---- Services ----

void data_world::service(const step& one) {
    const model_stream* const stream = model->stream(static_cast<uint32_t>(one.with[0]));
    if (stream == nullptr) {
        return;
    }
    tcp_socket& socket = *stream->socket;
    switch (one.what) {
        case op::SAY:
            socket.arrive(noise(std::min(socket.receive_room(), static_cast<size_t>(one.with[1]))));
            break;
        case op::READ: socket.take(all_or(one.with[1])); break;
        case op::SERVICE_END: socket.end(); break;
        case op::SERVICE_RESET: socket.reset(ECONNRESET); break;
        default: break;
    }
}

// ---- Steps ----

void data_world::play(const step& one) {
    model->outside_event();
    switch (one.what) {
        case op::ROUND: return rounds(one.with[0]);
        case op::SPEND: return spend(one.with[0]);
        case op::SETTLE: return settle();
        case op::SAY:
        case op::READ:
        case op::SERVICE_END:
        case op::SERVICE_RESET: return service(one);
        default: return play_server(one);
    }
}

void data_world::play_server(const step& one) {
    const auto id = static_cast<uint32_t>(one.with[0]);
    switch (one.what) {
        case op::OPEN: return open(one);
        case op::ASK: return ask(one);
        case op::UPLOAD: return flood({op::FLOOD, {one.with[0], 1, one.with[1]}});
        case op::FLOOD: return flood(one);
        case op::CLOSE: return server->say(wire::frame(wire::CLOSE_STREAM, id));
        case op::COMMAND: return command(one);
        case op::ANSWER: return server->answer(id);
        case op::DELIVER: return server->deliver(all_or(one.with[0]));
        case op::TAKE: return server->take(all_or(one.with[0]));
        case op::END: return server->end();
        case op::RESET: return server->reset();
        case op::LINK: return server->link(one.with[0] != 0);
        default: return play_box(one);
    }
}

void data_world::play_box(const step& one) {
    const auto count = static_cast<size_t>(std::max<int64_t>(one.with[0], 0));
    switch (one.what) {
        case op::TIME: return the_time.pass(one.with[0] * 1000);
        case op::CLOCK: the_time.set_us += one.with[0] * 1'000'000; return;
        case op::ROOM:
            server_room = std::max<size_t>(count, 1);
            the_network.local_room = static_cast<size_t>(std::max<int64_t>(one.with[1], 1));
            return;
        case op::FAIL: return fail_play(one);
        case op::ORDER:
            gwa_connection_data_order_all(&gwa_connections.data, {});
            return model->may_close("a newer order");
        case op::STOP: return stop();
        case op::BALLAST: return ballast(static_cast<uint32_t>(count));
        default: return;  // of a control connection
    }
}

// Memory that others hold; smaller pieces are counted as larger ones.
void data_world::ballast(uint32_t bytes) {
    gwa_connection_memory_release(conn, model->ballast);
    model->ballast = bytes < BALLAST_MIN ? 0 : bytes;
    gwa_connection_memory_charge(conn, model->ballast);
    model->surprised();
}

// As the worker does when the round is over: it frees the connection.
void data_world::stop() {
    gwa_connection_run = 0;
    the_network.watcher = &the_network.nobody;
    if (gwa_connection_data_round(conn) == gwa_step::GOES_ON) {
        gwa_connection_data_free(conn);
    }
    gwa_connection_run = 1;
    close();
}

// Everybody reads and answers, until nothing comes any more.
void data_world::settle() {
    the_network.failures = {};
    ballast(0);
    const data_model* const began = model.get();
    server->link(true);
    model->server()->widen();
    model->each_service([](tcp_socket& socket) { socket.widen(); });
    the_network.local_room = SETTLE_ROOM;
    int quiet = 0;
    for (int i = 0; i < SETTLE_ROUNDS && quiet < 3; i++) {
        server->deliver(SIZE_MAX);
        server->take(SIZE_MAX);
        server->answer(0);
        model->each_service([](tcp_socket& socket) { socket.take(SIZE_MAX); });
        model->outside_event();
        if (!round() || model.get() != began) {
            return;
        }
        quiet = server->has_said_all() && model->is_quiet() ? quiet + 1 : 0;
    }
    model->must_be_finished();
}

void data_world::finish() {
    gwa_connection_data_free(conn);
    ballast(0);
    conn->order.taken = conn->order.serial;
    close();
    gwa_connection_data_free(conn);
    if (memory_blocks != blocks_before) {
        broken("%lld blocks of memory are left",
               static_cast<long long>(memory_blocks - blocks_before));
    }
    the_network.watcher = &the_network.nobody;
}
