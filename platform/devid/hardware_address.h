// hardware_address.h - the hardware address that an id of this box is made of.
//
// It has to be the same after every boot. Which interface came up first may differ, and one that
// comes up with a random address has another one each time. So the kernel is asked, through sysfs,
// where an address comes from. From best to worst:
//
//   1. a device's own address: addr_assign_type 0, and there is a device below the interface
//   2. a device's address that somebody has set (3): a start script sets the same at each boot
//   3. a device's address, and the kernel does not say where it comes from
//   4. to 6. the same of virtual interfaces: bridges, tunnels, and all when there is no sysfs
//   7. a random (1) or another interface's address (2)
//
// Of equal ones the first counts, in the order of the interfaces' indices.
#pragma once

#include <net/if.h>

#include <cstdint>

constexpr int HARDWARE_ADDRESS_LENGTH = 6;

// Reads an interface's hardware address. False: it has none that could serve, as the loopback's.
using hardware_address_reader = bool (*)(const char* name,
                                         uint8_t (&address)[HARDWARE_ADDRESS_LENGTH]);

// Fills in the best address of the `interfaces`, which end as those of if_nameindex do; null: none.
// `sysfs` is the folder with a folder for each interface. False: no interface has an address.
bool hardware_address_choose(const struct if_nameindex* interfaces, const char* sysfs,
                             hardware_address_reader reader,
                             uint8_t (&address)[HARDWARE_ADDRESS_LENGTH]);
