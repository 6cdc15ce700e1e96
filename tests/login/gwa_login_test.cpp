#include "login/gwa_login.h"

#include <fstream>
#include <string>

#include "devid.h"
#include "login_settings.h"
#include "main/gwa_process.h"
#include "runtime/gwa_types.h"
#include "support/files.h"

namespace {

struct init_arguments {
    const char *name, *address, *port, *local, *interface, *id;
};

int init(const init_arguments& given) {
    return gwa_login_init(given.name, given.address, given.port, given.local, given.interface,
                          given.id);
}

// Runs one initialisation, returns what it logged, and takes everything back.
std::string log_of_init(const init_arguments& given, int expected) {
    testing::internal::CaptureStderr();
    const int result = init(given);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(result, expected) << log;
    gwa_login_exit();
    return log;
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
        EXPECT_EQ(log.find("login init success"), std::string::npos) << log;
    }
}

TEST(LoginInit, FillsInDefaults) {
    const std::string log = log_of_init({nullptr, nullptr, nullptr, nullptr, "lo", nullptr}, 0);
    EXPECT_NE(log.find("<3> need set the server name or IP\n"), std::string::npos) << log;
    EXPECT_STREQ(gwa_login.server_name, "relay.example.com");
    EXPECT_STREQ(gwa_login.backup_domain, "backup.example.net");
    EXPECT_EQ(gwa_login.backup_address, 0xc0000201);
    EXPECT_EQ(gwa_login.server_address, 0u);
    EXPECT_EQ(gwa_login.local_address, LOOPBACK);
    EXPECT_EQ(gwa_login.server_port, 9999);
}

TEST(LoginInit, DefaultsTheInterfaceOnlyWithoutADeviceId) {
    init({"a", nullptr, nullptr, nullptr, nullptr, nullptr});
    EXPECT_STREQ(gwa_login.interface, "br-lan");
    gwa_login_exit();
    init({"a", nullptr, nullptr, nullptr, nullptr, "x"});
    EXPECT_STREQ(gwa_login.interface, "");
    gwa_login_exit();
}

TEST(LoginInit, TakesWhatIsGiven) {
    const std::string long_id(60, 'd');
    ASSERT_EQ(init({nullptr, "192.0.2.7", "65535", "10.0.0.9", "lo", long_id.c_str()}), 0);
    EXPECT_STREQ(gwa_login.server_name, "") << "an address alone leaves no name to resolve";
    EXPECT_EQ(gwa_login.server_address, 0xc0000207);
    EXPECT_EQ(gwa_login.server_port, 65535);
    EXPECT_EQ(gwa_login.local_address, 0x0a000009u);
    EXPECT_EQ(gwa_device_id, std::string(47, 'd'));
    gwa_login_exit();
    EXPECT_EQ(gwa_device_id, nullptr);
}

TEST(LoginDeviceInfo, ListsThePairsInTableOrder) {
    temp_dir home;
    const std::string firmware = home.path + "/firmware";
    std::ofstream(firmware) << "COMPONENT=camera\nTERMINAL=indoor\r\nCURVER=1.2.3\n";
    const gwa_paths before = gwa_process_paths;
    text_copy(gwa_process_paths.firmware_file, firmware);
    {
        login_settings settings;
        char json[1008];
        const size_t length = gwa_login_device_info(json, sizeof json);
        EXPECT_EQ(std::string(json, length),
                  R"({"deviceid":"box-1","mac":"00:00:00:00:00:00","ip":"127.0.0.1",)"
                  R"("fwver":"1.2.3","prover":"0","component":"camera","terminal":"indoor"})");
    }
    gwa_process_paths = before;
}

TEST(LoginDeviceInfo, StaysInsideItsBuffer) {
    login_settings settings;
    const std::string whole = BOX_REPORT;
    for (size_t size = 0; size <= whole.size() + 1; ++size) {
        std::string buffer(whole.size() + 2, '#');
        const size_t length = gwa_login_device_info(buffer.data(), size);
        ASSERT_EQ(length, size == 0 ? 0 : size - 1);
        EXPECT_EQ(buffer.substr(size), std::string(buffer.size() - size, '#')) << size;
        if (length > 1) {
            EXPECT_EQ(buffer.substr(0, length), whole.substr(0, length - 1) + "}") << size;
            EXPECT_EQ(buffer[length], '\0') << size;
        }
    }
}

TEST(DeviceLibrary, GivesTheSameTerminatedIdEveryTime) {
    char first[48], again[48], small[6];
    ASSERT_EQ(create_boxid(first, sizeof first), 0);
    ASSERT_EQ(create_boxid(again, sizeof again), 0);
    ASSERT_EQ(create_boxid(small, sizeof small), 0);
    EXPECT_STREQ(first, again);
    EXPECT_EQ(small, std::string(first).substr(0, sizeof small - 1));
    EXPECT_EQ(std::string(first).find_first_not_of("0123456789abcdef"), std::string::npos) << first;
    EXPECT_EQ(create_boxid(small, 1), -1) << "no room for an id";
}
