#include "hardware_address.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "support/files.h"

namespace {

// An interface as the kernel shows it. Its name has two letters, which the reader puts into its
// address.
struct interface {
    const char* name;
    const char* assign_type;  // null: an old kernel
    bool device;
};

constexpr interface LOOPBACK { "lo", "0", true };  // with what would make it the best of all

bool read_name(const char* name, uint8_t (&address)[HARDWARE_ADDRESS_LENGTH]) {
    memset(address, 0xee, sizeof address);
    memcpy(address + 4, name, 2);
    return strcmp(name, LOOPBACK.name) != 0;
}

void show(const std::string& sysfs, const interface& shown) {
    const std::string folder = sysfs + "/" + shown.name;
    std::filesystem::create_directories(folder);
    if (shown.assign_type != nullptr) {
        file_write(folder + "/addr_assign_type", std::string(shown.assign_type) + "\n");
    }
    if (shown.device) {
        std::filesystem::create_directory_symlink("/", folder + "/device");
    }
}

// The name of the interface whose address has been chosen; "none".
std::string chosen_of(const std::vector<interface>& interfaces, const std::string& sysfs) {
    std::vector<struct if_nameindex> index;
    for (const interface& each : interfaces) {
        index.push_back({static_cast<unsigned>(index.size()) + 1, const_cast<char*>(each.name)});
    }
    index.push_back({0, nullptr});
    uint8_t address[HARDWARE_ADDRESS_LENGTH] = {};
    if (!hardware_address_choose(index.data(), sysfs.c_str(), read_name, address)) {
        return "none";
    }
    EXPECT_EQ(address[0], 0xee) << "not the whole address";
    return {address + 4, address + 6};
}

std::string chosen_in_sysfs(const std::vector<interface>& interfaces) {
    temp_dir sysfs;
    for (const interface& each : interfaces) {
        show(sysfs.path, each);
    }
    return chosen_of(interfaces, sysfs.path);
}

}  // namespace

TEST(HardwareAddress, PrefersWhatStaysTheSameAfterABoot) {
    const interface ranked[] = {{"a0", "0", true},  {"b0", "3", true},  {"c0", nullptr, true},
                                {"d0", "0", false}, {"e0", "3", false}, {"f0", nullptr, false}};
    for (size_t better = 0; better < std::size(ranked); better++) {
        for (size_t worse = better + 1; worse < std::size(ranked); worse++) {
            EXPECT_EQ(chosen_in_sysfs({LOOPBACK, ranked[worse], ranked[better]}),
                      ranked[better].name)
                << "not " << ranked[worse].name;
        }
        for (const interface changing : {interface{"g0", "1", true}, interface{"h0", "2", true}}) {
            EXPECT_EQ(chosen_in_sysfs({changing, ranked[better]}), ranked[better].name)
                << "not " << changing.name;
        }
    }
}

TEST(HardwareAddress, TakesTheFirstOfEqualOnes) {
    EXPECT_EQ(chosen_in_sysfs({LOOPBACK, {"a0", "0", true}, {"b0", "0", true}}), "a0");
    EXPECT_EQ(chosen_in_sysfs({LOOPBACK, {"a0", "1", false}, {"b0", "2", true}}), "a0");
}

TEST(HardwareAddress, DoesWithoutSysfs) {
    EXPECT_EQ(chosen_of({LOOPBACK, {"a0", "", false}, {"b0", "", false}}, "/nonexistent"), "a0");
    EXPECT_EQ(chosen_in_sysfs({LOOPBACK}), "none");
    uint8_t address[HARDWARE_ADDRESS_LENGTH] = {};
    EXPECT_FALSE(hardware_address_choose(nullptr, "/nonexistent", read_name, address));
}
