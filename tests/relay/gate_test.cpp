// Who may come in: users by a password, a session or a proxy's word, and devices by their ids.

#include <arpa/inet.h>

#include "access/sessions.h"
#include "relay/fixture.h"

namespace {

const std::string SECRET =
    "$2y$04$abcdefghijklmnopqrstuu2r9OfJnfCsdneAXAGHnS4UpFFP8WIrW";  // "secret"
const std::string WORD = "$2y$04$abcdefghijklmnopqrstuuB/GrfUOm5dtrEiT8lcouu5XB5ftbWLi";  // "word"
const std::string ADMIN = "Authorization: Basic ZXZlOnNlY3JldA==\r\n";  // eve:secret
const std::string ANN = "Authorization: bAsIc YW5uOndvcmQ=\r\n";        // ann:word
const std::string BROWSER = "Accept: text/html,*/*\r\n";

struct guarded {  // a relay with a users file, and a device that has announced port 80
    temp_dir folder;
    std::string file = folder.path + "/users";
    relay hub;
    unique_fd control, data;

    explicit guarded(strings options = {}) : hub((prepare(options), options)) {
        control = control_login(hub, "box"), data = data_login(hub, "box");
        write_all(control.get(), frame_bytes(PORT_INFO, 0, R"({"http_port":80})"));
        EXPECT_TRUE(still_echoes(control));
    }
    void prepare(strings& options) {
        file_write(file, "eve:" + SECRET + ":admin\n# nobody\n\nann:" + WORD +
                             ":cam/81, box box/82\njoe:*:*/80\ndan:" + WORD + "\n");
        options.insert(options.end(), {"--users-file=" + file, "--domain=relay.test", NO_GUARD});
    }
    std::string asks(const std::string& target, const std::string& fields,
                     const std::string& host = "relay.test") const {
        const std::string line = target.starts_with('/') ? "GET " + target : target;
        return fetch(hub, line + HTTP + "Host: " + host + "\r\n" + fields + "\r\n");
    }
    std::string code(const std::string& target, const std::string& fields,
                     const std::string& host = "relay.test") const {
        return asks(target, fields, host).substr(9, 3);
    }
    std::string logs_in(const std::string& form, const std::string& fields = "") const {
        return fetch(hub, "POST /gwrelay.login" + HTTP + "Host: relay.test:8443\r\n" + fields +
                              "Content-Length: " + std::to_string(form.size()) + "\r\n\r\n" + form);
    }
    std::string cookie() const {
        const std::string said = logs_in("name=eve&password=s%65cret&to=/");
        const size_t at = said.find("gwrelay=");
        return "Cookie: a=b; " + said.substr(at, said.find(';', at) - at) + "; c=d\r\n";
    }
};

TEST(GwrelayGate, NamesWhatIsWrongInItsFiles) {
    const temp_dir folder;
    const std::string file = folder.path + "/file";
    const auto check = [&](const std::string& option, const std::string& text,
                           const std::string& reason) {
        file_write(file, text);
        child process(relay::command_line({"--check-config", option + "=" + file}));
        EXPECT_EQ(process.wait(), reason.empty() ? 0 : 1) << text;
        EXPECT_TRUE(has(process.errors(), reason)) << process.errors();
    };
    const std::string users = "--users-file", boxes = "--boxes-file", id = std::string(47, 'i');
    check(users, "a:" + SECRET + ":x\n\nb:" + SECRET + ":x/0\n", ":3: no device and port: x/0");
    check(users, "a:" + SECRET + "\na:*\n", ":2: there is another a");
    check(users, "a:secret\n", ":1: a line is NAME:HASH:DEVICES");
    check(users, "# a\n", ": there is nobody in it");
    check(boxes, "a " + id + " mac=1 from=10.0.0.0/8,::1 same-address\n#\nb ii\n", "");
    check(boxes, "a " + id + "i\n", ":1: a line is NAME ID");
    check(boxes, "a b from=x\n", ":1: no address or range: from=x");
    check(boxes, "a b\nb b\n", ":2: this name or id is there already");
    check("--trusted-proxy", "", "takes addresses and ranges");  // and no file
    child open(relay::command_line({"--listen-users=0.0.0.0"}));
    EXPECT_TRUE(open.wait() == 1 && has(open.errors(), "give a --users-file, or --open-users"));
    child id_made({GWRELAY_PATH, "id"}), other({GWRELAY_PATH, "id"});
    EXPECT_TRUE(id_made.wait() == 0 && other.wait() == 0 && id_made.output().size() == 33 &&
                id_made.output() != other.output());
}

TEST(GwrelayGate, LetsUsersReachWhatTheyMay) {
    const guarded at;
    const std::string bad = "Authorization: Basic ZXZlOndvcmQ=\r\n", box = "box--80.relay.test";
    const std::tuple<const char*, std::string, std::string, std::string> cases[] = {
        {"200", "/healthz", "", "evil.test"},
        {"421", "/", ADMIN, "evil.test"},
        {"421", "/", ADMIN, "relay.test.evil"},
        {"401", "/", "", "relay.test"},
        {"401", "/", bad, "10.0.0.1"},
        {"401", "/", "Authorization: Bearer ZXZlOnNlY3JldA==\r\n", "relay.test"},
        {"200", "/status.json", ADMIN, "relay.test:80"},
        {"403", "/status.json", ANN, "relay.test"},
        {"307", "/", ANN, "relay.test"},
        {"403", "/metrics", ANN, ""},
        {"403", "POST /close-stream?device=box&user=1", ANN, ""},
        {"403", "POST /box/report-times?t1=5&t2=3600", ANN, ""},
        {"403", "/nobody/80/", ANN, ""},
        {"403", "/", ANN, "nobody--80.relay.test"},
        {"403", "/", ANN, "box--81.relay.test"},
        {"403", "/box/10010/", ANN, ""},
        {"403", "/box/81/", ANN, ""},
        {"404", "/", ADMIN, "nobody--80.relay.test"},
        {"403", "DELETE /", ADMIN + "Origin: http://evil.test\r\n", box},
        {"403", "POST /", ADMIN + "Origin: null\r\n", box},
        {"403", "POST /", ADMIN + "Sec-Fetch-Site: same-site\r\n", box},
        {"403", "/", ADMIN + "Origin: http://a.test\r\nConnection: Upgrade\r\nUpgrade: x\r\n", box},
    };
    for (const auto& [code, target, fields, host] : cases) {
        EXPECT_EQ(at.code(target, fields, host), code) << target << fields << host;
    }
    EXPECT_TRUE(has(at.asks("/", ""), "\r\nWWW-Authenticate: Basic "));
    EXPECT_FALSE(has(at.asks("/", "Sec-Fetch-Mode: cors\r\n"), "WWW-Authenticate"));
    EXPECT_TRUE(has(at.asks("/a?b", BROWSER, "box--80.relay.test:8443"),
                    "\r\nLocation: http://relay.test:8443/gwrelay.login?to=http%3A%2F%2Fbox--80."
                    "relay.test%3A8443%2Fa%3Fb\r\n"));
    uint32_t stream = 0;
    const std::pair<std::string, std::string> reached[] = {
        {"/box/80/", ANN},
        {"/box/82/", ANN},
        {"/box/81/", ADMIN},
        {"/box/10010/", ADMIN},
        {"POST /box/80/", ANN + "Origin: http://relay.test\r\n"}};
    for (const auto& [target, fields] : reached) {
        const std::string line = target.starts_with('/') ? "GET " + target : target;
        const unique_fd user = say_to(
            at.hub.front, line + HTTP + "Host: relay.test\r\n" + fields + "Cookie: c=d\r\n\r\n");
        const std::string got = frame_payload(frame_read(at.data.get()));
        EXPECT_TRUE(has(got, "x-qv-devid=box") && has(got, "Cookie: c=d\r\n")) << target;
        EXPECT_FALSE(has(got, "uthorization"));
        write_all(at.data.get(), frame_bytes(DATA, ++stream, OK_X));
        EXPECT_TRUE(read_with_end(user).ends_with("x"));
        EXPECT_EQ(frame_read(at.data.get()), frame_bytes(CLOSE_STREAM, stream));
    }
}

// The cookie is for the relay, and what a box shows has never the origin of the relay's page.
TEST(GwrelayGate, KeepsASession) {
    const guarded at;
    const std::string place = "http://box--80.relay.test:8443/a?b=c";
    const std::string form = at.asks("/gwrelay.login?to=%22%3Cb", "");
    EXPECT_TRUE(has(form, "name=\"to\" value=\"&#34;&#60;b\"") &&
                has(form, "Content-Security-Policy: default-src 'none'"))
        << form;
    const std::pair<const char*, std::string> places[] = {
        {"http%3a%2f%2fbox--80.relay.test:8443/a?b=c", place},
        {"/box/", "/box/"},
        {"//evil.test/", "/"},
        {"/%5cevil.test", "/"},
        {"http://evil.test/relay.test", "/"},
        {"http://relay.test@evil.test/", "/"},
        {"http://evil-relay.test/", "/"},
        {"https://relay.test/", "/"},
        {"/a%0d%0aSet-Cookie:x", "/"}};
    for (const auto& [to, location] : places) {
        const std::string said = at.logs_in("to="s + to + "&name=eve&password=secret");
        EXPECT_TRUE(said.starts_with("HTTP/1.1 303 ") &&
                    has(said, "\r\nLocation: " + location + "\r\n") &&
                    has(said, "; HttpOnly; SameSite=Lax; Domain=relay.test\r\n"))
            << said;
    }
    EXPECT_TRUE(has(at.logs_in("name=eve&password=word"), "Wrong name or password"));
    EXPECT_TRUE(at.logs_in("name=dan", "Origin: http://box--80.relay.test:8443\r\n")
                    .starts_with("HTTP/1.1 403 "));
    const std::string cookie = at.cookie();
    EXPECT_EQ(at.code("/status.json", cookie), "200");
    EXPECT_TRUE(has(at.asks("/box/80/a?b", cookie, "relay.test:8443"),
                    "\r\nLocation: http://box--80.relay.test:8443/a?b\r\n"));
    const unique_fd user = say_to(at.hub.front, "POST /" + HTTP + "Host: box--80.relay.test\r\n" +
                                                    "Authorization: Basic YTpi\r\n" + cookie +
                                                    "Origin: http://box--81.relay.test\r\n\r\n");
    const std::string got = frame_payload(frame_read(at.data.get()));
    EXPECT_TRUE(has(got, "Cookie: a=b; c=d\r\n") && has(got, "Authorization: Basic YTpi\r\n"))
        << got;
    EXPECT_EQ(at.code("POST /gwrelay.logout", cookie), "303");
    EXPECT_EQ(at.code("/status.json", cookie), "401");

    const std::string other = at.cookie();
    file_write(at.file, "eve:" + WORD + ":admin\n");
    kill(at.hub.process.pid(), SIGHUP);
    EXPECT_TRUE(eventually([&] { return at.code("/status.json", other) == "401"; }));
}

TEST(GwrelayGate, SessionsEndInTime) {
    account_table accounts;
    accounts["a"] = std::make_shared<account>(account{"a", "hash", true, {}});
    session_table table;
    const auto begin = steady::now();
    const std::string used = table.begin(*accounts["a"], begin);
    const std::string idle = table.begin(*accounts["a"], begin);
    EXPECT_NE(used, idle);
    auto now = begin;
    for (; now < begin + SESSION_MAX; now += SESSION_IDLE / 2) {
        EXPECT_EQ(table.find(used, accounts, now), accounts["a"]);
    }
    EXPECT_EQ(table.find(used, accounts, begin + SESSION_MAX), nullptr);
    EXPECT_EQ(table.find(idle, accounts, begin + SESSION_IDLE), nullptr);
    EXPECT_TRUE(table.all.empty());
}

// As often as a stranger would like to, from whatever address of his network. Who knows his
// password is not held up.
TEST(GwrelayGate, BoundsTries) {
    const guarded at({"--trusted-proxy=127.0.0.1"});
    const auto tries = [&at](int number, const std::string& from) {
        return at.asks("/status.json", "Authorization: Basic ZXZlOmE=\r\nX-Forwarded-For: " + from +
                                           std::to_string(number) + "\r\n");
    };
    for (int number = 0; number < 20; ++number) {
        EXPECT_EQ(at.code("/status.json", ADMIN), "200");
        EXPECT_EQ(tries(number, "2001:db8::").substr(9, 3), number < 10 ? "401" : "429") << number;
    }
    EXPECT_EQ(tries(1, "2001:db8:0:1::").substr(9, 3), "401");
    EXPECT_TRUE(has(at.hub.process.errors(), "2001:db8:0:1::1:"));
}

TEST(GwrelayGate, BelievesItsProxyAndNobodyElse) {
    const std::string told =
        "X-User: joe\r\nX-Forwarded-For: 1.1.1.1, 192.0.2.9, 127.0.0.1\r\n"
        "X-Forwarded-Proto: https\r\n";
    for (const bool trusted : {true, false}) {
        const guarded at({trusted ? "--trusted-proxy=127.0.0.0/8,::1" : "--trusted-proxy=10.0.0.1",
                          "--proxy-user-header=X-User"});
        EXPECT_EQ(at.code("/box/81/", told), trusted ? "403" : "401");
        EXPECT_EQ(at.code("/", "X-User: nobody\r\n"), trusted ? "403" : "401");
        const unique_fd user = say_to(at.hub.front, "GET /box/80/" + HTTP + "Host: relay.test\r\n" +
                                                        told + (trusted ? "" : ANN) + "\r\n");
        const std::string got = frame_payload(frame_read(at.data.get()));
        EXPECT_TRUE(has(got, trusted ? "X-Forwarded-For: 192.0.2.9\r\nX-Forwarded-Proto: https\r\n"
                                     : "X-Forwarded-For: 127.0.0.1\r\nX-Forwarded-Proto: http\r\n"))
            << got;
        EXPECT_FALSE(has(got, "X-User"));
    }
}

std::string device_info(const std::string& id, const std::string& mac) {
    return R"({"deviceid":")" + id + R"(","mac":")" + mac + R"("})";
}

unique_fd say_from(const char* address, uint16_t port, const std::string& bytes) {
    unique_fd fd(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in place{};
    place.sin_family = AF_INET;
    inet_pton(AF_INET, address, &place.sin_addr);
    EXPECT_EQ(bind(fd.get(), reinterpret_cast<sockaddr*>(&place), sizeof place), 0);
    inet_pton(AF_INET, "127.0.0.1", &place.sin_addr);
    place.sin_port = htons(port);
    EXPECT_EQ(connect(fd.get(), reinterpret_cast<sockaddr*>(&place), sizeof place), 0);
    write_all(fd.get(), bytes);
    return fd;
}

// Of the ids, which are secrets, nobody learns.
TEST(GwrelayBoxes, AreThoseOfTheFileUnderTheirNames) {
    const temp_dir folder;
    const std::string file = folder.path + "/boxes";
    file_write(file, "cellar 5c1e mac=AA:bb\nattic 77d0 from=10.0.0.0/8\n");
    const relay hub({"--boxes-file=" + file, NO_GUARD});
    const auto refused = [&hub](const std::string& id, const std::string& mac) {
        return closed_by_peer(say_to(hub.control, login_frame(3, device_info(id, mac))).get());
    };
    EXPECT_TRUE(refused("other", "") && refused("cellar", "aa:bb") && refused("5c1e", "aa:cc") &&
                refused("77d0", ""));
    const std::string asks = "GET /addrmgr/device_get_proxy?devid=", end = " HTTP/1.1\r\n\r\n";
    EXPECT_TRUE(has(read_to_end(say_to(hub.manager, asks + "5c1e" + end).get()), "\"ret\":0"));
    EXPECT_TRUE(has(read_to_end(say_to(hub.manager, asks + "5c1f" + end).get()), "\"ret\":1"));
    const unique_fd control = login(hub.control, 3, device_info("5c1e", "AA:BB"));
    const unique_fd data = login(hub.data, 2, device_info("5c1e", "AA:BB"));
    const unique_fd user = say_to(hub.front, "GET /cellar/80/" + HTTP + "\r\n");
    EXPECT_TRUE(has(frame_payload(frame_read(data.get())), "x-qv-devid=5c1e&"));
    const std::string status = get(hub, "/status.json");
    EXPECT_TRUE(has(status, "\"deviceid\":\"cellar\"") && !has(status, "5c1e")) << status;
    EXPECT_FALSE(has(hub.process.errors(), "5c1e")) << hub.process.errors();
    file_write(file, "attic 77d0\n");
    kill(hub.process.pid(), SIGHUP);
    EXPECT_TRUE(closed_by_peer(control.get()));
    EXPECT_TRUE(still_echoes(login(hub.control, 3, device_info("77d0", ""))));
}

// One that has gone makes room at once for itself, and for no other one while it lives.
TEST(GwrelayBoxes, HaveOneControlConnectionAndFiveOfData) {
    const temp_dir folder;
    const std::string file = folder.path + "/boxes";
    file_write(file, "cellar box same-address\n");
    const relay hub({"--boxes-file=" + file, "--gone-timeout=1"});
    const std::string data_frame = login_frame(2, info("box"));
    EXPECT_TRUE(closed_by_peer(say_to(hub.data, data_frame).get())) << "nobody is there";
    const unique_fd control = control_login(hub, "box");
    EXPECT_TRUE(closed_by_peer(say_from("127.0.0.2", hub.data, data_frame).get()));
    std::vector<unique_fd> data;
    for (int number = 0; number < 5; ++number) {
        data.push_back(data_login(hub, "box"));
    }
    EXPECT_TRUE(closed_by_peer(say_to(hub.data, data_frame).get())) << "a sixth";
    EXPECT_TRUE(still_echoes(data[0]) || frame_read(data[0].get()) == heartbeat_frame(0x01020304));
    data.pop_back();
    EXPECT_TRUE(eventually([&] { return has(hub.process.errors(), ", 4 left"); }));
    data.push_back(data_login(hub, "box"));
    const unique_fd second = say_from("127.0.0.2", hub.control, login_frame(3, info("box")));
    EXPECT_TRUE(closed_by_peer(second.get()));
    EXPECT_TRUE(still_echoes(control));
    EXPECT_TRUE(has(get(hub, "/status.json"), "\"alerts\":[\"id used twice\"]"));
    data.clear();
    const unique_fd moved = say_from("127.0.0.2", hub.control, login_frame(3, info("box")));
    shutdown(control.get(), SHUT_RDWR);
    EXPECT_FALSE(frame_read(moved.get()).empty());
}

}  // namespace
