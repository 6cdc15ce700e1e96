// What may happen to the connections around a daemon.
#include "faults.h"

namespace {

// States.
bool is_up(scene& at) { return at.comes_up(); }
bool waits_for_control_answer(scene& at) { return at.discovery() && at.control_comes(); }
bool waits_for_heartbeat(scene& at) {
    return waits_for_control_answer(at) && at.sends(frame_bytes(LOGIN_ANSWER)) &&
           at.hears(frame_bytes(SESSION_ID)) && at.hears(heartbeat_frame(0));
}
bool waits_for_data_answer(scene& at) { return at.logs_in() && at.orders() && at.data_comes(); }
bool downloads(scene& at) {
    return at.comes_up() && at.sends_data(request_frame(9, at.service.port()));
}
// Ends.
bool control_resets(scene& at) { return reset(at.control), true; }
bool control_ends(scene& at) { return at.control.reset(), true; }
bool data_resets(scene& at) { return reset(at.data), true; }
bool data_ends(scene& at) { return at.data.reset(), true; }
// What it comes back by.
bool data_is_back(scene& at) { return at.data_comes() && at.answers_data(); }
bool data_is_ordered(scene& at) { return at.orders() && data_is_back(at); }
bool data_is_answered(scene& at) { return at.answers_data(); }

bool late(scene&) {
    std::this_thread::sleep_for(test_duration{3000});
    return true;
}

}  // namespace

TEST_F(Faults, OfTheControlConnectionEndInANewProcessOrLogin) {
    constexpr fault FAULTS[] = {
        {"reset", is_up, control_resets, is_up, true},
        {"end", is_up, control_ends, is_up, true},
        {"half an end", is_up, [](scene& at) { return shutdown(at.control.get(), SHUT_WR) == 0; },
         is_up, true},
        {"end behind the answer to the login", waits_for_control_answer,
         [](scene& at) { return at.sends(frame_bytes(LOGIN_ANSWER)) && control_ends(at); }, is_up,
         true},
        {"end in a payload", is_up,
         [](scene& at) {
             return at.sends(frame_bytes(PRIVACY, 0, "private").substr(0, 20)) && control_ends(at);
         },
         is_up, true},
        {"end in place of an answer", waits_for_control_answer, control_ends, is_up},
        {"end in the answer", waits_for_control_answer,
         [](scene& at) {
             return at.sends(frame_bytes(LOGIN_ANSWER).substr(0, 7)) && control_ends(at);
         },
         is_up},
        {"answers to heartbeats that it has not sent", is_up,
         [](scene& at) {
             const std::string wrong = heartbeat_frame(9);
             return at.sends(wrong + wrong + wrong) &&
                    at.device.logs("max heartbeat timeout counter overflow, reinit now");
         },
         is_up, true},
        {"one byte at a time", waits_for_control_answer,
         [](scene& at) {
             return write_bytewise(at.control.get(), frame_bytes(LOGIN_ANSWER)) &&
                    at.hears(frame_bytes(SESSION_ID)) && at.hears(heartbeat_frame(0)) &&
                    write_bytewise(
                        at.control.get(),
                        heartbeat_frame(0) + order_of_one("127.0.0.1", at.data_server.port));
         },
         data_is_back},
        {"a late answer to a heartbeat", waits_for_heartbeat,
         [](scene& at) { return late(at) && at.sends(heartbeat_frame(0)); }, data_is_ordered},
        {"the name of the address manager is unknown for a while",
         [](scene& at) { return at.device.logs("Can not resolve the domain " + at.host); },
         [](scene& at) { return name_resolves(at.host), true; }, is_up, false, false},
    };
    expect_well_after(FAULTS);
}

TEST_F(Faults, OfADataConnectionEndInANewLogin) {
    constexpr fault FAULTS[] = {
        {"reset in mid-download", downloads,
         [](scene& at) { return !frame_read(at.data.get()).empty() && data_resets(at); },
         data_is_back},
        {"reset in a payload", is_up,
         [](scene& at) {
             return at.sends_data(request_frame(9, 1).substr(0, 30)) && data_resets(at);
         },
         data_is_back},
        {"end right behind a request", downloads, data_ends, data_is_back},
        {"half an end, and the answer is still taken", downloads,
         [](scene& at) {
             return shutdown(at.data.get(), SHUT_WR) == 0 && at.receives(9) && data_resets(at);
         },
         data_is_back},
        {"end in place of an answer", waits_for_data_answer, data_ends, data_is_back},
        {"a late answer", waits_for_data_answer, late, data_is_answered},
        {"one byte at a time", waits_for_data_answer,
         [](scene& at) {
             return write_bytewise(at.data.get(),
                                   frame_bytes(LOGIN_ANSWER) + request_frame(9, at.service.port()));
         },
         [](scene& at) { return at.receives(9) && at.sends_data(frame_bytes(CLOSE_STREAM, 9)); }},
        {"the server's name is unknown for a while",
         [](scene& at) {
             return at.logs_in() &&
                    at.sends(order_of_one("name-of-data.test", at.data_server.port)) &&
                    at.device.logs("resolve domain failed, name-of-data.test");
         },
         [](scene&) { return name_resolves("name-of-data.test"), true; }, data_is_back},
    };
    expect_well_after(FAULTS);
}

// What is no answer makes the daemon ask the next server, here the same one by its other name.
TEST_F(Faults, OfTheAddressManagerLeadToTheNextOne) {
    const std::string head = "HTTP/1.1 200 OK\r\n\r\n", unknown = NOWHERE;
    const std::string REPLIES[] = {
        "",
        "HTTP/1.1 200 OK\r\nContent-Length: 40\r\n",
        "HTTP/1.1 404 Not Found\r\n\r\n{\"ret\":1}",
        head,
        head + "{\"ret\":0",
        head + "{\"ret\":0,\"proxy\":",
        head + "{\"ret\":0,\"proxy\":\"127.0.0.1",
        head + "{\"ret\":0,\"proxy\":\"127.0.0.1:9998",
        head + "{\"ret\":0,\"proxy\":\"127.0.0.1:0\"}",
        head + "{\"ret\":0,\"proxy\":\"127.0.0.1:65535\"}",
        head + "{\"ret\":0,\"proxy\":\"" + unknown + ":9998\"}",
        std::string("\0\r\n\r\n{\"ret\":0,\"proxy\":\"", 23) + noise(2000, 3),
        noise(100000, 4),
    };
    name_resolves("backup.example.net");
    std::vector<std::thread> threads;
    for (const std::string& reply : REPLIES) {
        for (const bool in_two : {false, true}) {
            threads.emplace_back([&reply, in_two] {
                SCOPED_TRACE(reply.substr(0, 80));
                scene at;
                unique_fd fd = at.manager.accept();
                read_until(fd.get(), "\r\n\r\n");
                write_all(fd.get(), reply);
                in_two ? reset(fd) : fd.reset();
                EXPECT_TRUE(at.comes_up() && at.carries() && !at.is_new());
            });
        }
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}
