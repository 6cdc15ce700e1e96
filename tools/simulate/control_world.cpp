#include "control_world.h"

#include <algorithm>
#include <cstring>

#include "connection/gwa_connection.h"
#include "connection/gwa_connection_cntl.h"
#include "fail.h"
#include "runtime/gwa_process.h"
#include "runtime/gwa_util_time.h"

control_world* the_control_world = nullptr;

namespace {

constexpr int64_t SETTLE_WAITS = 400;
constexpr size_t LOW_WATER = 16;  // as the login leaves it
constexpr size_t ORDER_MAX = 127;

void on_restart() {
    gwa_process_run = 0;
    the_control_world->restarted();
}

void on_order(const gwa_host_list& servers) {
    the_control_world->effect(std::string("order ") + servers.hosts[0] + " " +
                              std::to_string(servers.ports[0]));
    gwa_connection_data_order_all(&gwa_connections.data, servers);
}

int on_reporting_times(uint32_t t1, uint32_t t2) {
    the_control_world->effect("times " + std::to_string(t1) + " " + std::to_string(t2));
    return 0;
}

}  // namespace

control_world::control_world() {
    the_control_world = this;
    the_time = {START_S * 1'000'000, 0, [this] { meanwhile(); }};
    gwa_now_refresh();
    the_network.failures = {};
}

control_world::~control_world() {
    the_time.meanwhile = nullptr;
    the_control_world = nullptr;
    gwa_process_run = 1;
}

void control_world::effect(const std::string& what) {
    if (the_network.watcher == model.get()) {
        model->effect(what);
    }
}

void control_world::restarted() {
    if (the_network.watcher == model.get()) {
        model->restarted();
        the_network.watcher = &the_network.nobody;  // a real restart does not return
    }
}

// A new process, after its login.
void control_world::connect() {
    gwa_process_run = 1;
    gwa_connection_table_init();
    cntl = &gwa_connections.cntl;
    cntl->hooks = {on_restart, on_order, on_reporting_times};
    the_network.failures = {};
    blocks_before = memory_blocks;
    tcp_socket& socket = the_network.login_socket(server_room);
    socket.low_water = LOW_WATER;
    server = std::make_unique<relay_server>(socket);
    model = std::make_unique<control_model>(cntl, socket);
    the_network.watcher = model.get();
    waits_left = settling = spend_until_us = 0;
    if (gwa_connection_cntl_init(cntl, socket.fd) != GWA_OK) {
        broken("the control connection cannot be made");
    }
}

void control_world::process() {
    connect();
    gwa_connection_cntl_manage(cntl);
    the_network.watcher = &the_network.nobody;
    gwa_connection_cntl_exit(cntl);
    if (the_network.open_count() != 0 || cntl->socket != -1 || cntl->reports != 0 ||
        memory_blocks != blocks_before) {
        broken("a closed control connection holds %zu descriptors, %u reports, %lld blocks",
               the_network.open_count(), cntl->reports.load(),
               static_cast<long long>(memory_blocks - blocks_before));
    }
}

void control_world::play(const schedule& all) {
    steps = &all;
    do {
        process();
    } while (next < all.size());
}

// The daemon waits, wherever: the schedule goes on up to the next time that it is to wait.
void control_world::meanwhile() {
    rounds_run++;
    if (!gwa_process_running()) {
        return;
    }
    if (settling > 0) {
        settle();
        return;
    }
    while (waits_left == 0 && the_time.now_us >= spend_until_us && settling == 0) {
        if (next == steps->size()) {
            gwa_process_run = 0;
            the_network.watcher = &the_network.nobody;  // whatever is going on breaks off
            return;
        }
        play((*steps)[next++]);
    }
    waits_left -= waits_left > 0 ? 1 : 0;
}

void control_world::settle() {
    server->link(true);
    model->server()->widen();
    server->take(SIZE_MAX);
    server->answer(0);
    server->deliver(SIZE_MAX);
    was_quiet = was_quiet || model->is_quiet();
    if (--settling == 0 && !was_quiet) {
        model->must_be_finished();
    }
}

// ---- Steps ----

void control_world::play(const step& one) {
    const auto count = static_cast<size_t>(std::max<int64_t>(one.with[0], 0));
    switch (one.what) {
        case op::ROUND: waits_left = one.with[0]; return;
        case op::SPEND: spend_until_us = the_time.now_us + one.with[0] * 1000; return;
        case op::TIME: return the_time.pass(one.with[0] * 1000);
        case op::CLOCK: the_time.set_us += one.with[0] * 1'000'000; return;
        case op::ROOM: server_room = std::max<size_t>(count, 1); return;
        case op::COMMAND: return command(one);
        case op::ANSWER: return server->answer(static_cast<uint32_t>(one.with[0]));
        case op::DELIVER: return server->deliver(count == 0 ? SIZE_MAX : count);
        case op::TAKE: return server->take(count == 0 ? SIZE_MAX : count);
        case op::END: return server->end();
        case op::RESET: return server->reset();
        case op::LINK: return server->link(one.with[0] != 0);
        case op::ORDER: return order(one.with[0]);
        case op::REPORT:
            for (int64_t i = 0; i < one.with[1]; i++) {
                report(one.with[0]);
            }
            return;
        case op::FAIL: return fail_play(one);
        case op::SETTLE:
            the_network.failures = {};
            settling = SETTLE_WAITS;
            was_quiet = false;
            return;
        default: return;  // of a data connection
    }
}

void control_world::command(const step& one) {
    const std::string payload =
        noise(std::min(static_cast<size_t>(one.with[1]), wire::PAYLOAD_MAX));
    switch (one.with[0]) {
        case 0: return server->say(wire::frame(wire::SESSION_ID, 0, noise(32)));
        case 1: return server->say(wire::frame(wire::SESSION_ID, 0, payload));
        case 2: return server->say(wire::frame(wire::REPORT_TIMES, 0, noise(8)));
        case 3: return server->say(wire::frame(wire::REPORT_TIMES, 0, payload));
        case 4: return server->say(wire::frame(wire::PRIVACY, 0, payload));
        case 5: return server->say(wire::frame(wire::STATUS, 0, payload));
        case 6: return server->say(wire::frame(wire::LOGIN_ANSWER, 0, payload));
        case 7: return server->say(wire::frame(wire::DATA, 1, payload));
        case 8: return server->say(wire::frame(wire::CLOSE_CONNECTION));
        case 9: return server->say(wire::heartbeat(static_cast<uint32_t>(one.with[1])));
        default: return server->say(wire::bad_frame(one.with[0], payload));
    }
}

void control_world::order(int64_t kind) {
    const std::string good = "host1host2host3host4host5 \"192.0.2." + std::to_string(kind) +
                             "\" port1port2port3port4port5 \"" + std::to_string(9000 + kind) + "\"";
    const std::string texts[] = {good, "", noise(ORDER_MAX), good.substr(0, good.size() / 2)};
    const auto which = static_cast<size_t>(kind) < std::size(texts) ? static_cast<size_t>(kind) : 0;
    server->say(wire::frame(wire::ORDER, 0, texts[which]));
}

void control_world::report(int64_t bytes) {
    const std::string payload = noise(std::min(static_cast<size_t>(bytes), wire::PAYLOAD_MAX));
    gwa_output_node* const node = gwa_connection_frame_new(
        gwa_command::REPORT_STATUS, GWA_FLAG_COMMAND, 0, static_cast<uint32_t>(payload.size()));
    memcpy(gwa_connection_payload_of(node), payload.data(), payload.size());
    model->report_queued(wire::frame(wire::STATUS, 0, payload));
    gwa_connection_cntl_report(cntl, node);
}
