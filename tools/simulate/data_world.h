// data_world.h - a data connection, its server, the services of its box and the clock: plays the
// steps of a schedule.
#pragma once

#include <memory>

#include "data_model.h"
#include "server.h"
#include "step.h"

class data_world {
   public:
    data_world();
    ~data_world();
    data_world(data_world&&) = delete;

    void play(const step& one);
    // The end of the schedule: everything is freed, and nothing may be left.
    void finish();
    uint64_t rounds_run = 0;

   private:
    gwa_connection_data* conn;
    std::unique_ptr<data_model> model;
    size_t server_room = 1 << 17;
    int64_t blocks_before = 0;
    std::unique_ptr<relay_server> server;

    void play_server(const step& one);
    void play_box(const step& one);
    void connect();
    void close();
    bool round();
    void rounds(int64_t count);
    void spend(int64_t ms);
    void open(const step& one);
    void flood(const step& one);
    void ask(const step& one);
    void command(const step& one);
    void service(const step& one);
    void stop();
    void ballast(uint32_t bytes);
    void settle();
};
