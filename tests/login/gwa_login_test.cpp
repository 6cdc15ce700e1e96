#include "login/gwa_login.h"

#include <algorithm>

#include "devid.h"
#include "login_settings.h"
#include "support/log_of.h"

TEST(LoginInit, RefusesBadArgumentsWithAReason) {
    const struct {
        const char *address, *port, *local, *interface, *reason;
    } refused[] = {
        {"192.0.2", nullptr, nullptr, "lo", "server ip is invalid 192.0.2\n"},
        {nullptr, nullptr, "localhost", "lo", "local ip is invalid localhost\n"},
        {nullptr, "0", nullptr, "lo", "server port is invalid 0\n"},
        {nullptr, "65536", nullptr, "lo", "server port is invalid 65536\n"},
        {nullptr, "4294967297", nullptr, "lo", "server port is invalid 4294967297\n"},
        {nullptr, nullptr, nullptr, "no-such", "get mac failed\n"},
        {nullptr, nullptr, nullptr, nullptr, "get mac failed\n"},
    };
    for (const auto& with : refused) {
        const std::string log = log_of([&] {
            EXPECT_EQ(gwa_login_init("a", with.address, with.port, with.local, with.interface, "x"),
                      -1);
        });
        EXPECT_TRUE(log.ends_with("<3> " + std::string(with.reason))) << log;
        gwa_login_exit();
    }
}

TEST(LoginInit, TakesWhatIsGivenAndFillsInTheRest) {
    const std::string long_id(60, 'd');
    EXPECT_EQ(gwa_login_init(nullptr, "192.0.2.7", "65535", "10.0.0.9", "lo", long_id.c_str()), 0);
    EXPECT_STREQ(gwa_login.server_name, "") << "an address alone leaves no name to resolve";
    EXPECT_EQ(gwa_login.server_address, 0xc0000207);
    EXPECT_EQ(gwa_login.server_port, 65535);
    EXPECT_EQ(gwa_login.local_address, 0x0a000009u);
    EXPECT_EQ(gwa_device_id, std::string(47, 'd'));
    gwa_login_exit();
    EXPECT_EQ(gwa_device_id, nullptr);
    EXPECT_EQ(gwa_login_init(nullptr, nullptr, nullptr, nullptr, "lo", nullptr), 0);
    EXPECT_STRNE(gwa_login.server_name, "");
    EXPECT_EQ(gwa_login.server_address, 0u);
    EXPECT_NE(gwa_login.backup_address, 0u);
    EXPECT_EQ(gwa_login.server_port, 9999);
    EXPECT_EQ(gwa_login.local_address, LOOPBACK);
    EXPECT_STRNE(gwa_device_id, "") << "the device library's";
    gwa_login_exit();
    gwa_login_init("a", nullptr, nullptr, nullptr, nullptr, nullptr);
    EXPECT_STREQ(gwa_login.interface, "br-lan");
    gwa_login_exit();
}

TEST(LoginDeviceInfo, StaysInsideItsBuffer) {
    const login_settings settings;
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
