#include "login/gwa_login.h"

#include <algorithm>

#include "devid.h"
#include "login_settings.h"
#include "support/log_of.h"

namespace {

struct init_arguments {
    const char *name, *address, *port, *local, *interface, *id;
};

// Runs one initialisation and returns what it logged.
std::string log_of_init(const init_arguments& given, int expected) {
    return log_of([&] {
        EXPECT_EQ(gwa_login_init(given.name, given.address, given.port, given.local,
                                 given.interface, given.id),
                  expected);
    });
}

}  // namespace

TEST(LoginInit, RefusesBadArgumentsWithAReason) {
    const std::pair<init_arguments, const char*> refused[] = {
        {{"a", "192.0.2", nullptr, nullptr, "lo", "x"}, "<3> server ip is invalid 192.0.2\n"},
        {{"a", nullptr, nullptr, "localhost", "lo", "x"}, "<3> local ip is invalid localhost\n"},
        {{"a", nullptr, "0", nullptr, "lo", "x"}, "<3> server port is invalid 0\n"},
        {{"a", nullptr, "65536", nullptr, "lo", "x"}, "<3> server port is invalid 65536\n"},
        {{"a", nullptr, "4294967297", nullptr, "lo", "x"}, "port is invalid 4294967297\n"},
        {{"a", nullptr, "http", nullptr, "lo", "x"}, "<3> server port is invalid http\n"},
        {{"a", nullptr, nullptr, nullptr, "no-such", "x"}, "<3> get mac failed\n"},
        {{"a", nullptr, nullptr, nullptr, nullptr, "x"}, "<3> get mac failed\n"},
    };
    for (const auto& [given, reason] : refused) {
        const std::string log = log_of_init(given, -1);
        EXPECT_NE(log.find(reason), std::string::npos) << log;
        gwa_login_exit();
    }
}

TEST(LoginInit, FillsInDefaults) {
    const std::string log = log_of_init({nullptr, nullptr, nullptr, nullptr, "lo", nullptr}, 0);
    EXPECT_NE(log.find("<3> need set the server name or IP\n"), std::string::npos) << log;
    EXPECT_STRNE(gwa_login.server_name, "");
    EXPECT_EQ(gwa_login.server_address, 0u);
    EXPECT_NE(gwa_login.backup_address, 0u);
    EXPECT_EQ(gwa_login.local_address, LOOPBACK);
    EXPECT_EQ(gwa_login.server_port, 9999);
    EXPECT_STRNE(gwa_device_id, "") << "the device library's";
    gwa_login_exit();
    for (const char* id : {static_cast<const char*>(nullptr), "x"}) {
        gwa_login_init("a", nullptr, nullptr, nullptr, nullptr, id);
        EXPECT_STREQ(gwa_login.interface, id == nullptr ? "br-lan" : "");
        gwa_login_exit();
    }
}

TEST(LoginInit, TakesWhatIsGiven) {
    const std::string long_id(60, 'd');
    log_of_init({nullptr, "192.0.2.7", "65535", "10.0.0.9", "lo", long_id.c_str()}, 0);
    EXPECT_STREQ(gwa_login.server_name, "") << "an address alone leaves no name to resolve";
    EXPECT_EQ(gwa_login.server_address, 0xc0000207);
    EXPECT_EQ(gwa_login.server_port, 65535);
    EXPECT_EQ(gwa_login.local_address, 0x0a000009u);
    EXPECT_EQ(gwa_device_id, std::string(47, 'd'));
    gwa_login_exit();
    EXPECT_EQ(gwa_device_id, nullptr);
}

TEST(LoginDeviceInfo, StaysInsideItsBuffer) {
    login_settings settings;
    const std::string whole = BOX_REPORT;
    for (size_t size = 0; size <= whole.size() + 1; ++size) {
        std::string buffer(whole.size() + 2, '#');
        const size_t length = gwa_login_device_info(buffer.data(), size);
        ASSERT_EQ(length, size == 0 ? 0 : std::min(size - 1, whole.size()));
        EXPECT_EQ(buffer.substr(size), std::string(buffer.size() - size, '#')) << size;
        if (length > 1) {
            EXPECT_EQ(buffer.c_str(), whole.substr(0, length - 1) + "}") << size;
        }
    }
}

TEST(DeviceLibrary, GivesATerminatedIdThatFits) {
    char id[48], small[6];
    ASSERT_EQ(create_boxid(id, sizeof id), 0);
    ASSERT_EQ(create_boxid(small, sizeof small), 0);
    EXPECT_EQ(small, std::string(id).substr(0, sizeof small - 1));
    EXPECT_EQ(std::string(id).find_first_not_of("0123456789abcdef"), std::string::npos) << id;
    EXPECT_EQ(create_boxid(small, 1), -1) << "no room for an id";
}
