// control_world.h - the control connection, its server and the clock. The daemon's own loop runs;
// what the schedule says happens while it waits.
#pragma once

#include <memory>

#include "control_model.h"
#include "server.h"
#include "step.h"

class control_world {
   public:
    control_world();
    ~control_world();
    control_world(control_world&&) = delete;

    // Plays the whole schedule, in as many processes as it takes.
    void play(const schedule& all);
    uint64_t rounds_run = 0;

    // What the daemon does: a file that it writes, the hooks.
    void effect(const std::string& what);
    void restarted();

   private:
    gwa_connection_cntl* cntl = nullptr;
    std::unique_ptr<control_model> model;
    std::unique_ptr<relay_server> server;
    const schedule* steps = nullptr;
    size_t next = 0;
    int64_t waits_left = 0;  // until the next step
    int64_t spend_until_us = 0;
    int64_t settling = 0;    // waits in which everybody reads and answers
    bool was_quiet = false;  // meanwhile
    size_t server_room = 1 << 17;
    int64_t blocks_before = 0;

    void connect();
    void process();
    void meanwhile();
    void play(const step& one);
    void command(const step& one);
    void order(int64_t kind);
    void report(int64_t bytes);
    void settle();
};
extern control_world* the_control_world;
