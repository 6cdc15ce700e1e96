#include "runtime/gwa_util_file.h"

#include <gtest/gtest.h>

#include "support/files.h"
#include "support/sockets.h"

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
        {" CURVER=1\ncurver=1\nCURVER 1\nCURVER", -1, "?", "?", "?"},
        {"CURVER=" + whole + "\nCOMPONENT=" + whole + "w\nTERMINAL=ab", 0, whole, whole, "ab"},
        {std::string(126, '-') + "CURVER=1\nCOMPONENT=c\nTERMINAL=ab", 0, "1", "c", "ab"},
        {std::string(125, '-') + "CURVER=1\nCOMPONENT=c\nTERMINAL=ab", -1, "?", "c", "ab"},
    };
    const temp_dir home;
    const std::string firmware = home.path + "/firmware";
    const int next = unique_fd(dup(STDIN_FILENO)).get();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.content);
        file_write(firmware, c.content);
        gwa_firmware_value version = "?", component = "?", terminal = "?";
        EXPECT_EQ(gwa_fwver_get(firmware.c_str(), version, component, terminal), c.result);
        EXPECT_EQ(version, c.version);
        EXPECT_EQ(component, c.component);
        EXPECT_EQ(terminal, c.terminal);
    }
    EXPECT_EQ(unique_fd(dup(STDIN_FILENO)).get(), next) << "a descriptor is lost";
}
