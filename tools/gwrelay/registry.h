// registry.h - the devices, their connections and streams, and what the whole relay shares.
#pragma once

#include <map>
#include <optional>
#include <unordered_map>
#include <vector>

#include "connection.h"
#include "http.h"
#include "options.h"
#include "text.h"

struct device;
struct data_link;

struct control_link : connection {
    using connection::connection;
    std::shared_ptr<device> owner;  // null until the login
    void ended() override;
};

enum class port_state : uint8_t { ALIVE, DEAD, UNKNOWN };

struct user_link : connection {
    using connection::connection;
    std::shared_ptr<device> owner;     // set with the stream, stays for the log
    std::shared_ptr<data_link> route;  // carries the stream; null before it opens and once it ended
    uint32_t stream_id = 0;            // 0 while there is no stream
    uint16_t port = 0;
    port_state port_is = port_state::ALIVE;  // while unknown, the rest of his request waits
    std::string held;                        // what waits of it, apart from what he has yet to send
    std::string what;                        // method and path, safe to log
    bool head_only = false;                  // the method is HEAD
    http_tracker request{http_tracker::kind::REQUEST}, response{http_tracker::kind::RESPONSE};
    std::vector<iovec> arrived;  // for him, in what his data connection has just received
    uint64_t to_device = 0, from_device = 0;
    bool user_ended = false;                        // he sends no more; he may still read
    steady::time_point last_moved = steady::now();  // a byte, in either direction
    void ended() override;
    void has_room() override;
    void reply(std::string_view whole);  // an answer of the relay itself
};

struct data_link : connection {
    using connection::connection;
    std::shared_ptr<device> owner;  // null until the login
    bool held_back = false;         // not read at present: one of its users takes too little
    steady::time_point last_nudge = steady::now();
    std::unordered_map<uint32_t, std::shared_ptr<user_link>> streams;
    uint64_t bytes_in = 0, bytes_out = 0;  // stream payload
    void ended() override;
};

struct device {
    std::string id;    // up to 47 characters of any kind
    std::string name;  // the id, safe to log
    text_pairs info;
    std::shared_ptr<control_link> control;  // null while the device is away
    std::vector<std::shared_ptr<data_link>> data;
    uint32_t last_stream_id = 0;
    std::optional<uint32_t> dlna_status;
    std::map<std::string, uint16_t> ports;  // as announced; kept while the device is away
    uint64_t bytes_in = 0, bytes_out = 0;   // stream payload of connections that have ended
    steady::time_point left = steady::now();

    bool away() const { return control == nullptr && data.empty(); }
};

struct relay {
    const options& settings;
    std::map<std::string, std::shared_ptr<device>, std::less<>> devices;
    std::vector<std::weak_ptr<connection>> connections;  // every one that is open
    std::string manager_body;                            // the address manager's answer
    std::string order_json;                              // the order in a login answer
    std::string order_text;                              // the order by command 7
};

// The device of that id, made when it is new. Devices that are away stay known, up to a limit.
std::shared_ptr<device> device_get(relay& hub, const std::string& id);
// The connection for a new stream, or null: not held back first, then the fewest streams.
std::shared_ptr<data_link> device_pick_data(const device& owner);

// Sends the reporting times; false when the device has no control connection.
bool device_send_times(const device& owner, report_times times);
