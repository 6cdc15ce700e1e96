#include "data_world.h"

#include <netinet/in.h>

#include <algorithm>
#include <cerrno>

#include "connection/gwa_connection.h"
#include "connection/gwa_connection_data_round.h"
#include "login/gwa_login.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_util_time.h"

namespace {

constexpr size_t PAYLOAD_MAX = 8176;
constexpr size_t RECEIVE_ROOM = 1 << 18;  // of the daemon's sockets
constexpr int SETTLE_ROUNDS = 2000;
constexpr size_t SETTLE_ROOM = 1 << 17;
constexpr size_t BALLAST_MIN = 8192;          // smaller pieces are counted as larger ones
constexpr int64_t START_S = INT32_MAX - 300;  // the coarse clock wraps in most schedules

enum command : uint16_t { DATA = 1, HEARTBEAT = 2, CLOSE_STREAM = 4, LOGIN_ANSWER = 5 };

std::string frame(uint16_t code, uint32_t stream, std::string_view payload, uint8_t version = 1) {
    const auto number = [](uint32_t value) {
        return std::string{static_cast<char>(value >> 24), static_cast<char>(value >> 16),
                           static_cast<char>(value >> 8), static_cast<char>(value)};
    };
    return std::string{static_cast<char>(version), 16, 0, static_cast<char>(code)} +
           number(code == DATA ? 0 : 1) + number(stream) +
           number(static_cast<uint32_t>(payload.size())) + std::string(payload);
}

uint32_t number_at(const std::string& bytes, size_t at) {
    uint32_t value = 0;
    for (size_t i = at; i < at + 4; i++) {
        value = value << 8 | static_cast<uint8_t>(bytes[i]);
    }
    return value;
}

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
    undelivered.clear();
    heard.clear();
    heartbeats.clear();
    delivered = 0;
    server_ends = false;
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

std::string data_world::noise(size_t count) {
    static const std::string letters = [] {
        std::string made;
        uint64_t state = 1;
        for (int i = 0; i < 1 << 17; i++) {
            state = state * 6364136223846793005U + 1442695040888963407U;
            made += static_cast<char>(' ' + (state >> 33) % 95);
        }
        return made;
    }();
    noise_at = (noise_at * 31 + 7919) % (1 << 16);
    std::string made;
    while (made.size() < count) {
        made += letters.substr(noise_at, count - made.size());
    }
    return made;
}

// ---- The server ----

void data_world::say(std::string_view bytes) {
    if (!server_ends) {
        undelivered += bytes;
    }
}

void data_world::deliver(size_t count) {
    tcp_socket& socket = *model->server();
    const size_t room = RECEIVE_ROOM - std::min(RECEIVE_ROOM, socket.arrived.size());
    const size_t now = std::min({count, room, undelivered.size() - delivered});
    socket.arrive(std::string_view(undelivered).substr(delivered, now));
    delivered += now;
    if (server_ends && delivered == undelivered.size()) {
        socket.end();
    }
}

void data_world::take(size_t count) {
    heard += model->server()->take(count);
    while (heard.size() >= 16 && heard.size() >= 16 + number_at(heard, 12)) {
        if (heard[3] == HEARTBEAT) {
            heartbeats.push_back(number_at(heard, 16));
        }
        heard.erase(0, 16 + number_at(heard, 12));
    }
}

void data_world::open(const step& one) {
    const auto [id, port, priority, extra] = one.with;
    say(frame(DATA, static_cast<uint32_t>(id),
              request("x-qv-devid=box&x-qv-port=" + std::to_string(network::FIRST_PORT + port) +
                      "&x-qv-pri=" + std::to_string(priority)) +
                  noise(static_cast<size_t>(extra))));
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
        "GET / HTTP/1.1",
        "no request at all, but long enough",
    };
    const size_t kind = static_cast<size_t>(one.with[1]) % std::size(requests);
    say(frame(DATA, static_cast<uint32_t>(one.with[0]), requests[kind]));
}

void data_world::command(const step& one) {
    const std::string payload =
        noise(std::min<size_t>(static_cast<size_t>(one.with[1]), PAYLOAD_MAX));
    const auto changed = [&](size_t at, int value) {
        std::string bytes = frame(DATA, 1, payload);
        bytes[at] = static_cast<char>(value);
        return bytes;
    };
    switch (one.with[0]) {
        case 0: return say(frame(LOGIN_ANSWER, 0, payload));
        case 1: return say(frame(HEARTBEAT, 0, payload));  // of a length that is none
        case 2: return say(frame(DATA, 1, ""));
        case 3: return say(frame(9, 0, payload));
        case 4: return say(frame(HEARTBEAT, 0, std::string{"\1\2\3\4"}));
        case 5: return say(frame(6, 0, ""));
        case 6: return say(changed(0, 4));
        case 7: return say(changed(1, 15));
        case 8: return say(changed(3, 13));
        default: return say(changed(12, 1));
    }
}

void data_world::answer(const step& one) {
    for (const uint32_t number : heartbeats) {
        const uint32_t told = number + static_cast<uint32_t>(one.with[0]);
        say(frame(HEARTBEAT, 0,
                  std::string{static_cast<char>(told >> 24), static_cast<char>(told >> 16),
                              static_cast<char>(told >> 8), static_cast<char>(told)},
                  2));
    }
    heartbeats.clear();
}

// ---- Services ----

void data_world::service(const step& one) {
    const model_stream* const stream = model->stream(static_cast<uint32_t>(one.with[0]));
    if (stream == nullptr) {
        return;
    }
    tcp_socket& socket = *stream->socket;
    const size_t room = RECEIVE_ROOM - std::min(RECEIVE_ROOM, socket.arrived.size());
    switch (one.what) {
        case op::SAY: socket.arrive(noise(std::min(room, static_cast<size_t>(one.with[1])))); break;
        case op::READ: socket.take(all_or(one.with[1])); break;
        case op::SERVICE_END: socket.end(); break;
        case op::SERVICE_RESET: socket.reset(ECONNRESET); break;
        default: break;
    }
}

// ---- Steps ----

void data_world::play(const step& one) {
    model->outside_event();
    const auto count = static_cast<size_t>(std::max<int64_t>(one.with[0], 0));
    switch (one.what) {
        case op::ROUND: return rounds(one.with[0]);
        case op::TIME: return the_time.pass(one.with[0] * 1000);
        case op::CLOCK: the_time.set_us += one.with[0] * 1'000'000; return;
        case op::ROOM:
            server_room = count;
            the_network.local_room = static_cast<size_t>(one.with[1]);
            return;
        case op::OPEN: return open(one);
        case op::ASK: return ask(one);
        case op::UPLOAD:
            return say(
                frame(DATA, static_cast<uint32_t>(one.with[0]),
                      noise(std::min<size_t>(static_cast<size_t>(one.with[1]), PAYLOAD_MAX))));
        case op::CLOSE: return say(frame(CLOSE_STREAM, static_cast<uint32_t>(one.with[0]), ""));
        case op::COMMAND: return command(one);
        case op::ANSWER: return answer(one);
        case op::DELIVER: return deliver(all_or(one.with[0]));
        case op::TAKE: return take(all_or(one.with[0]));
        case op::END: server_ends = true; return deliver(0);
        case op::RESET: return model->server()->reset(ECONNRESET);
        case op::SAY:
        case op::READ:
        case op::SERVICE_END:
        case op::SERVICE_RESET: return service(one);
        case op::FAIL:
            the_network.failures[count % CALL_COUNT] = {static_cast<int>(one.with[1]),
                                                        static_cast<int>(one.with[2])};
            return;
        case op::ORDER:
            gwa_connection_data_order_all(&gwa_connections.data, {});
            model->may_close("a newer order");
            return;
        case op::BALLAST:
            gwa_connection_memory_release(conn, model->ballast);
            model->ballast = static_cast<uint32_t>(count < BALLAST_MIN ? 0 : count);
            gwa_connection_memory_charge(conn, model->ballast);
            model->surprised();
            return;
        case op::SETTLE: return settle();
        case op::COUNT: return;
    }
}

// Everybody reads and answers, until nothing comes any more.
void data_world::settle() {
    the_network.failures = {};
    play({op::BALLAST, {0}});
    const data_model* const began = model.get();
    const auto grow = [](tcp_socket& socket) {
        socket.send_room = std::max(socket.send_room, SETTLE_ROOM);
    };
    grow(*model->server());
    model->each_service(grow);
    the_network.local_room = std::max(the_network.local_room, SETTLE_ROOM);
    int quiet = 0;
    for (int i = 0; i < SETTLE_ROUNDS && quiet < 3; i++) {
        deliver(SIZE_MAX);
        take(SIZE_MAX);
        answer({});
        model->each_service([](tcp_socket& socket) { socket.take(SIZE_MAX); });
        model->outside_event();
        if (!round() || model.get() != began) {
            return;
        }
        quiet = delivered == undelivered.size() && model->is_quiet() ? quiet + 1 : 0;
    }
    model->must_be_finished();
}

void data_world::finish() {
    gwa_connection_data_free(conn);
    gwa_connection_memory_release(conn, model->ballast);
    model->ballast = 0;
    conn->order.taken = conn->order.serial;
    close();
    gwa_connection_data_free(conn);
    the_network.watcher = nullptr;
}
