// registry.h - the devices, their connections and streams, and what the whole relay shares.
#pragma once

#include <array>
#include <map>
#include <optional>
#include <unordered_map>
#include <vector>

#include "access/passwords.h"
#include "access/rules.h"
#include "access/sessions.h"
#include "base/json.h"
#include "base/label.h"
#include "base/options.h"
#include "base/text.h"
#include "http/http.h"
#include "http/http_message.h"
#include "http/rewrite.h"
#include "http/websocket.h"
#include "hub/activity.h"
#include "net/connection.h"
#include "net/slowness.h"
#include "net/tls.h"

struct device;
struct data_link;

struct control_link : connection {
    using connection::connection;
    std::shared_ptr<device> owner;  // null until the login
    void ended() override;
};

enum class port_state : uint8_t { ALIVE, DEAD, UNKNOWN };

constexpr size_t DATA_CONNECTIONS = 5;  // that a device is told to make

enum class door : uint8_t { USERS, ADMIN, BOTH };  // devices' ports, the relay's own pages
// What has passed of a WebSocket's frames, to know when both sides have taken leave.
struct websocket {
    websocket_side user, service;
    bool over() const { return user.closed() && service.closed(); }
};

struct user_link : connection {
    using connection::connection;
    door came_by = door::USERS;
    const uint64_t number = ++count;  // no other user has it
    std::string input;                // what he has sent and nobody has taken yet
    bool user_ended = false;          // he sends no more; he may still read
    std::string peer;                 // the address at the other end: his, or a proxy's
    std::string scheme = "http";      // of what he or the proxy that passes him on has come by
    bool on_loopback = false;         // he came to an address that only this machine reaches
    bool unheard = false;             // what he still sends is thrown away

    // Who has made the request that is being served (gate.h):
    std::shared_ptr<const account> who;  // null: nobody has asked him
    bool by_session = false;             // his browser has told, by itself
    bool by_password = false;            // the request's Authorization is for the relay

    // That request, up to the end of its response (exchange_begin):
    std::shared_ptr<device> owner;     // set with the stream, stays for the log
    std::shared_ptr<data_link> route;  // carries the stream; null before it opens and once it ended
    uint32_t stream_id = 0;            // 0 while there is no stream
    uint16_t port = 0;
    int32_t priority = 0;
    port_state port_is = port_state::ALIVE;  // while unknown, the rest of his request waits
    std::string held;                        // what waits of it, apart from what he has yet to send
    std::string what;                        // method and path, safe to log
    http_view view;                          // what he and the service see of each other
    bool head_only = false;                  // the method is HEAD
    bool is_1_0 = false;                     // HTTP/1.0
    bool may_switch = false;                 // he asks for another protocol
    bool persistent = false;                 // he would have his connection go on after it
    bool keeps = false;                      // and it will
    bool shareable = false;                  // the stream may serve another request after it
    bool repeatable = false;                 // it may have gone to the service before
    bool reused = false;                     // the stream has served another one before
    bool stale = false;                      // and turns out to be of no use any more
    bool too_much = false;                   // more has come than the response
    bool swallows = false;          // the response is to the relay's own request, for nobody
    bool opened = false;            // it has opened the stream, in front of his request
    bool patient = false;           // the service is known to go on after such a one
    std::optional<websocket> talk;  // while he and the service speak by its rules
    http_body request;              // its rest, which he has yet to send
    http_response response;
    std::string head;            // of the response, on its way
    std::vector<iovec> arrived;  // for him, in what his data connection has just received
    uint64_t to_device = 0, from_device = 0;
    int answered = 0;  // by the relay itself, with this status
    slowness slow;
    uint64_t taken_when_stuck = 0;  // when all data connections of the device became held back
    const char* cut = nullptr;      // why the relay has ended his stream
    rate_meter rate;
    steady::time_point last_moved = steady::now();  // a byte, in either direction
    steady::time_point began = steady::now();       // his request
    std::optional<std::string> watches;  // the page's events, by a request with this query

    void ended() override;
    void has_room() override;
    void reply(std::string_view whole);  // an answer of the relay itself

   private:
    static inline uint64_t count = 0;
};

// A stream without a user: a request has ended on it, and the next one may follow.
struct kept_stream {
    uint32_t id;
    uint16_t port;
    int32_t priority;
    uint64_t last_user;
    steady::time_point since, until;
};

struct data_link : connection {
    using connection::connection;
    std::shared_ptr<device> owner;  // null until the login
    bool held_back = false;         // not read at present: one of its users takes too little
    steady::time_point last_held{};
    bool held_noted = false;  // for so long that it is told
    steady::time_point came = steady::now();
    steady::time_point last_nudge = steady::now();
    std::unordered_map<uint32_t, std::shared_ptr<user_link>> streams;
    std::vector<kept_stream> kept;         // oldest first
    uint64_t bytes_in = 0, bytes_out = 0;  // stream payload
    void ended() override;

    size_t open_streams() const { return streams.size() + kept.size(); }
};

// Whether a port's service goes on after a request of the relay's own; not known when it is not
// there.
struct opening {
    bool works;
    steady::time_point until;  // asked again then, when it does not
};

struct device {
    std::string id;  // up to 47 characters of any kind: its name where a boxes file gives it one
    std::string wire_id;  // by which it knows itself; a secret, then
    std::string name;     // the id, safe to log
    std::string label;    // of its names (base/label.h); empty when it can have none
    text_pairs info;
    std::shared_ptr<control_link> control;  // null while the device is away
    std::vector<std::shared_ptr<data_link>> data;
    uint32_t last_stream_id = 0;
    steady::time_point stuck_since = NEVER;  // all data connections are held back
    size_t waiting = 0;                      // users, for a data connection to take their streams
    uint64_t cuts = 0;                       // streams that had to give way to others
    std::optional<uint32_t> dlna_status;
    std::map<std::string, uint16_t> ports;  // as announced; kept while the device is away
    std::map<uint16_t, steady::time_point> unkept_ports;  // whose streams are not kept, until then
    std::map<uint16_t, opening> openings;
    uint64_t bytes_in = 0, bytes_out = 0;  // stream payload of connections that have ended
    steady::time_point left = steady::now(), came = left;
    std::string address;       // from where it has logged in last
    bool one_address = false;  // all its connections come from there
    activity lately;
    std::string row;         // on the page, as JSON
    uint64_t row_round = 0;  // in which it has changed last

    bool away() const { return control == nullptr && data.empty(); }
};

// Users that are there, at the same time and by address, and those who are turned away.
struct admission {
    size_t users = 0, turned_away = 0;
    std::unordered_map<std::string, size_t> by_address;
    uint64_t refused = 0;  // ever
};

// Who may come in, and who has.
struct entrance {
    access_rules rules;
    session_table sessions;
    password_checker passwords;
};

struct traffic {  // stream payload
    uint64_t from_device = 0, to_device = 0;
};

// What the page shows, made once for all who look at it.
struct page_rounds {
    uint64_t round = 0;      // counts up with each time that rows were made
    uint64_t all_since = 0;  // in this one a device was forgotten: who has older rows needs all
    steady::time_point made{};
};

struct relay {
    const options& settings;
    outbox_pool pool;
    admission admitted;
    std::map<std::string, std::shared_ptr<device>, std::less<>> devices;
    std::vector<std::weak_ptr<connection>> connections;  // every one that is open
    std::string manager_body;                            // the address manager's answer
    std::string order_json;                              // the order in a login answer
    std::string order_text;                              // the order by command 7
    uint16_t manager_port = 0, front_port = 0;           // the address manager's, the users'
    steady::time_point started = steady::now(), looked = started;
    traffic forgotten{};  // of devices that are not known any more
    uint64_t forgotten_cuts = 0;
    page_rounds page{};
    bool draining = false;               // no new requests: the process is about to end
    bool own_door = false;               // the relay's own pages have an address of their own
    std::array<uint64_t, 6> requests{};  // that are over, by the hundreds of their status
    std::map<std::string, std::shared_ptr<device>, std::less<>> labels = {};  // the devices again
    entrance entry{};
    tls_front tls{};
};

// The device of that id, made when it is new. Devices that are away stay known, up to a limit.
std::shared_ptr<device> device_get(relay& hub, const std::string& id);
// The streams that a data connection may have. The device closes a stream and opens the next in the
// order in which it is told on one connection, but not across them.
size_t data_share(const options& set);
// The connection for a new stream: where it waits for nobody, if there is such a one, then the one
// with the fewest streams. Null: there is none, or the device could not bear one more.
std::shared_ptr<data_link> device_pick_data(const relay& hub, const device& owner);

traffic device_traffic(const device& owner);
// Takes the rates of everything that moves; to be called every LOOK_INTERVAL.
void relay_look(relay& hub, steady::time_point now);

// Sends the reporting times; false when the device has no control connection.
bool device_send_times(const device& owner, report_times times);
