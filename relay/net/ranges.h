// ranges.h - addresses and ranges of them: "192.0.2.1", "10.0.0.0/8", "2001:db8::/32".
#pragma once

#include <asio/ip/address.hpp>
#include <asio/ip/network_v4.hpp>
#include <asio/ip/network_v6.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

using address_range = std::variant<asio::ip::network_v4, asio::ip::network_v6>;

// A list of them with commas. Nothing: one of them is none.
std::optional<std::vector<address_range>> ranges_parse(std::string_view list);
// Whether it is in one of them. An IPv4 address may come as one of IPv6.
bool ranges_have(const std::vector<address_range>& ranges, std::string_view address);
// Of an IPv6 address, the part that one customer of a network has; an IPv4 address as it is.
std::string address_group(std::string_view address);
// Whether only this machine has it.
bool address_is_loopback(const asio::ip::address& address);
