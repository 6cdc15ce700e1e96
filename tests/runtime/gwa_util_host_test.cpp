#include "runtime/gwa_util_host.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>

#include "main/gwa_process.h"
#include "runtime/gwa_types.h"
#include "support/child.h"

TEST(RoundUp, GivesPowersOfTwoUpTo8192) {
    const std::pair<int, int> sizes[] = {{-1, 0},      {0, 0},       {1, 32},      {32, 32},
                                         {33, 64},     {64, 64},     {65, 128},    {4096, 4096},
                                         {4097, 8192}, {8191, 8192}, {8192, 8192}, {8193, 8193}};
    for (const auto& [size, rounded] : sizes) {
        EXPECT_EQ(gwa_round_up(size), rounded) << size;
    }
}

TEST(MallocDeathTest, EndsTheProcessOnASizeBelowOne) {
    EXPECT_DEATH(GWA_MALLOC(0), "<3> size is <= 0");
}

TEST(SizeFormat, ScalesByUnits) {
    constexpr uint64_t KIB = 1024, MIB = KIB * KIB, GIB = MIB * KIB, TIB = GIB * KIB;
    const std::pair<uint64_t, const char*> sizes[] = {
        {0, "0"},           {1023, "1023"},         {KIB, "1.000K"},         {1536, "1.500K"},
        {MIB, "1.000M"},    {GIB - 1, "1023.999M"}, {3 * GIB / 2, "1.500G"}, {5 * TIB, "5.000T"},
        {KIB * TIB, "XXX"}, {UINT64_MAX, "XXX"}};
    for (const auto& [value, text] : sizes) {
        char buffer[16];
        EXPECT_STREQ(gwa_size_format(value, buffer, sizeof buffer), text);
        EXPECT_STREQ(gwa_size_format(value, nullptr, 0), text);
    }
    char small[15] = "untouched";
    EXPECT_STREQ(gwa_size_format(1, small, sizeof small), "ERROR");
    EXPECT_STREQ(small, "untouched");
}

TEST(FirmwareVersion, TakesThreeKeys) {
    const std::string whole(32, 'v');
    struct {
        std::string content;
        int result;
        std::string version, component, terminal;
    } const cases[] = {
        {"CURVER=1.2\r\nCOMPONENT=box\nTERMINAL=home", 0, "1.2", "box", "home"},
        {"TERMINAL=ab\n#x\nCURVER=1\nCURVER=2\nCOMPONENT=c\nCURVER=3\n", 0, "2", "c", "ab"},
        {"CURVER=1\nCOMPONENT=c\nTERMINAL=x\n", -1, "1", "c", "?"},
        {"TERMINAL=longer\nCURVER=1\nCOMPONENT=c\nTERMINAL=", 0, "1", "c", "longer"},
        {"COMPONENT=c\nCURVER=1\nTERMINAL=", -1, "1", "c", "?"},
        {"CURVER=\r\nCOMPONENT=\nTERMINAL=ab\n", -1, "?", "?", "ab"},
        {" CURVER=1\ncurver=1\nCURVER 1\nCURVER", -1, "?", "?", "?"},
        {"CURVER=" + whole + "\nCOMPONENT=" + whole + "w\nTERMINAL=ab", 0, whole, whole, "ab"},
        {std::string(126, '-') + "CURVER=1\nCOMPONENT=c\nTERMINAL=ab", 0, "1", "c", "ab"},
        {std::string(125, '-') + "CURVER=1\nCOMPONENT=c\nTERMINAL=ab", -1, "?", "c", "ab"},
    };
    const temp_dir home;
    const std::string firmware = home.path + "/firmware";
    text_copy(gwa_process_paths.firmware_file, firmware);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.content);
        file_write(firmware, c.content);
        gwa_firmware_value version = "?", component = "?", terminal = "?";
        EXPECT_EQ(gwa_fwver_get(version, component, terminal), c.result);
        EXPECT_EQ(version, c.version);
        EXPECT_EQ(component, c.component);
        EXPECT_EQ(terminal, c.terminal);
    }
}

TEST(Resolve, AnswersTheFirstAddress) {
    uint32_t address = 0;
    char text[16] = "";
    EXPECT_EQ(gwa_getaddrinfo("192.0.2.7", &address, text, sizeof text), 0);
    EXPECT_EQ(ntohl(address), 0xc0000207);
    EXPECT_STREQ(text, "192.0.2.7");
    EXPECT_EQ(gwa_getaddrinfo("192.0.2.7", nullptr, nullptr, 0), 0);
    EXPECT_EQ(gwa_getaddrinfo("192.0.2.7", nullptr, text, 4), GWA_FAILED);
    EXPECT_NE(gwa_getaddrinfo("not a name", &address, text, sizeof text), 0);
}

TEST(Interface, TellsAddressesOfTheLoopback) {
    uint8_t address[4] = {}, mac[6] = {1, 2, 3, 4, 5, 6};
    EXPECT_EQ(gwa_interface_addr_get("lo", &address), 0);
    EXPECT_EQ(load_be32(address), INADDR_LOOPBACK);
    EXPECT_EQ(gwa_interface_mac_get("lo", &mac), 0);
    EXPECT_EQ(load_be32(mac) + load_be32(mac + 2), 0U);
    for (const char* name : {static_cast<const char*>(nullptr), "", "a name of twenty-one"}) {
        EXPECT_EQ(gwa_interface_addr_get(name, &address), GWA_FAILED);
        EXPECT_EQ(gwa_interface_mac_get(name, &mac), GWA_FAILED);
    }
}

TEST(CloseAllFds, LeavesNoneOpen) {
    const int high = fcntl(STDERR_FILENO, F_DUPFD, 200);
    child closer([high] {
        gwa_close_all_fds();
        _exit(fcntl(0, F_GETFD) == -1 && fcntl(high, F_GETFD) == -1 ? 0 : 1);
    });
    EXPECT_EQ(closer.wait(), 0);
    close(high);
}

TEST(Hexdump, PrintsRowsOfSixteen) {
    testing::internal::CaptureStdout();
    gwa_hexdump("0123456789 \n~\x7f\xff.!", 17);
    fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "         0  1  2  3  4  5  6  7  8  9  a  b  c  d  e  f\n"
              "        -- -- -- -- -- -- -- -- -- -- -- -- -- -- -- --\n"
              "0x0000  30 31 32 33 34 35 36 37 38 39 20 0a 7e 7f ff 2e  0123456789 .~...\n"
              "0x0010  21 \n");
}

TEST(ThreadCreate, LeavesTheEndingSignalsToItsCreator) {
    sigset_t inside, ours;
    pthread_t thread;
    const auto look = [](void* mask) -> void* {
        pthread_sigmask(SIG_BLOCK, nullptr, static_cast<sigset_t*>(mask));
        EXPECT_NE(gwa_gettid(), static_cast<uint32_t>(getpid()));
        return nullptr;
    };
    ASSERT_EQ(gwa_thread_create(&thread, look, &inside), 0);
    pthread_join(thread, nullptr);
    pthread_sigmask(SIG_BLOCK, nullptr, &ours);
    for (const int signal : {SIGINT, SIGTERM}) {
        EXPECT_EQ(sigismember(&inside, signal), 1);
        EXPECT_EQ(sigismember(&ours, signal), 0);
    }
    EXPECT_EQ(sigismember(&inside, SIGUSR1), 0);
}
