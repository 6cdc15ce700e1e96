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

// The name of the interface whose address is chosen; "none". Where these are, sysfs may show them.
std::string chosen_of(const std::vector<interface>& interfaces, bool with_sysfs = true) {
    const temp_dir sysfs;
    std::vector<struct if_nameindex> index;
    for (const interface& each : interfaces) {
        index.push_back({static_cast<unsigned>(index.size()) + 1, const_cast<char*>(each.name)});
        const std::string folder = sysfs.path + "/" + each.name;
        if (with_sysfs) {
            std::filesystem::create_directories(folder + (each.device ? "/device" : ""));
        }
        if (with_sysfs && each.assign_type != nullptr) {
            file_write(folder + "/addr_assign_type", std::string(each.assign_type) + "\n");
        }
    }
    index.push_back({0, nullptr});
    uint8_t address[HARDWARE_ADDRESS_LENGTH] = {};
    if (!hardware_address_choose(index.data(), sysfs.path.c_str(), read_name, address)) {
        return "none";
    }
    EXPECT_EQ(address[0], 0xee) << "not the whole address";
    return {address + 4, address + 6};
}

}  // namespace

TEST(HardwareAddress, PrefersWhatStaysTheSameAfterABoot) {
    const interface ranked[] = {{"a0", "0", true},  {"b0", "3", true},  {"c0", nullptr, true},
                                {"d0", "0", false}, {"e0", "3", false}, {"f0", nullptr, false},
                                {"g0", "1", true}};
    for (size_t better = 0; better < std::size(ranked); better++) {
        for (size_t worse = better + 1; worse < std::size(ranked); worse++) {
            EXPECT_EQ(chosen_of({LOOPBACK, ranked[worse], ranked[better]}), ranked[better].name)
                << "not " << ranked[worse].name;
        }
    }
    EXPECT_EQ(chosen_of({{"h0", "2", true}, ranked[5]}), "f0");
}

TEST(HardwareAddress, TakesTheFirstOfEqualOnesAndDoesWithoutSysfs) {
    EXPECT_EQ(chosen_of({LOOPBACK, {"a0", "0", true}, {"b0", "0", true}}), "a0");
    EXPECT_EQ(chosen_of({LOOPBACK, {"a0", "1", false}, {"b0", "2", true}}), "a0");
    EXPECT_EQ(chosen_of({LOOPBACK, {"a0", "", false}, {"b0", "", false}}, false), "a0");
    EXPECT_EQ(chosen_of({LOOPBACK}), "none");
    uint8_t address[HARDWARE_ADDRESS_LENGTH] = {};
    EXPECT_FALSE(hardware_address_choose(nullptr, "/nonexistent", read_name, address));
}
