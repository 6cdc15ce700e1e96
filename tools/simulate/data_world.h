// data_world.h - a data connection, its server, the services of its box and the clock: plays the
// steps of a schedule.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "data_model.h"
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
    std::string undelivered;           // what the server has said
    size_t delivered = 0;              // of it
    bool server_ends = false;          // behind that
    std::string heard;                 // by the server, not a whole frame yet
    std::vector<uint32_t> heartbeats;  // that the server has not answered
    uint64_t noise_at = 0;

    void connect();
    void close();
    bool round();
    void rounds(int64_t count);
    void say(std::string_view frame);
    void deliver(size_t count);
    void take(size_t count);
    void open(const step& one);
    void ask(const step& one);
    void command(const step& one);
    void answer(const step& one);
    void service(const step& one);
    void settle();
    std::string noise(size_t count);
};
