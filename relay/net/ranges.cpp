#include "net/ranges.h"

#include <algorithm>

#include "http/http.h"

namespace {

constexpr unsigned short CUSTOMER_BITS = 64, V4_BITS = 32, V6_BITS = 128;

asio::ip::address plain(const asio::ip::address& address) {
    const bool mapped = address.is_v6() && address.to_v6().is_v4_mapped();
    return mapped ? make_address_v4(asio::ip::v4_mapped, address.to_v6()) : address;
}

std::optional<asio::ip::address> address_parse(std::string_view text) {
    asio::error_code failed;
    const asio::ip::address address = asio::ip::make_address(std::string(text), failed);
    return failed ? std::nullopt : std::optional(plain(address));
}

std::optional<address_range> range_parse(std::string_view text) {
    if (const auto single = address_parse(text)) {
        return single->is_v4() ? address_range(asio::ip::network_v4(single->to_v4(), V4_BITS))
                               : address_range(asio::ip::network_v6(single->to_v6(), V6_BITS));
    }
    asio::error_code not_v4, not_v6;
    const auto v4 = asio::ip::make_network_v4(std::string(text), not_v4);
    if (!not_v4) {
        return v4.canonical();
    }
    const auto v6 = asio::ip::make_network_v6(std::string(text), not_v6);
    return not_v6 ? std::nullopt : std::optional<address_range>(v6.canonical());
}

struct has_address {
    const asio::ip::address& address;

    bool operator()(const asio::ip::network_v4& range) const {
        return address.is_v4() &&
               asio::ip::network_v4(address.to_v4(), range.prefix_length()).canonical() == range;
    }
    bool operator()(const asio::ip::network_v6& range) const {
        return address.is_v6() &&
               asio::ip::network_v6(address.to_v6(), range.prefix_length()).canonical() == range;
    }
};

}  // namespace

std::optional<std::vector<address_range>> ranges_parse(std::string_view list) {
    std::vector<address_range> ranges;
    while (!list.empty()) {
        const auto range = range_parse(http_word_take(list));
        if (!range) {
            return std::nullopt;
        }
        ranges.push_back(*range);
    }
    return ranges;
}

bool ranges_have(const std::vector<address_range>& ranges, std::string_view address) {
    const auto parsed = address_parse(address);
    return parsed && std::ranges::any_of(ranges, [&](const address_range& range) {
               return std::visit(has_address{*parsed}, range);
           });
}

std::string address_group(std::string_view address) {
    const auto parsed = address_parse(address);
    if (!parsed || parsed->is_v4()) {
        return std::string(address);
    }
    return asio::ip::network_v6(parsed->to_v6(), CUSTOMER_BITS).canonical().to_string();
}

bool address_is_loopback(const asio::ip::address& address) { return plain(address).is_loopback(); }
