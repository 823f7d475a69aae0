// SPDX-License-Identifier: MIT
//
// One line of a ruleset, as every part of pfctl handles it. All numbers are in host byte order.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tarnvale::pfctl {

enum class Action : std::uint8_t { pass, blockDrop };
enum class Direction : std::uint8_t { in, out };

/// The values are the protocols' own numbers; `any` covers every protocol.
enum class Protocol : std::uint8_t { any = 0, icmp = 1, tcp = 6, udp = 17 };

/// IPv4 addresses that share their first bits. Host bits are always clear.
struct Subnet {
    std::uint32_t address = 0;
    std::uint8_t prefixLength = 0;

    bool operator==(const Subnet&) const = default;

    std::uint32_t mask() const {
        return prefixLength == 0 ? 0 : ~std::uint32_t{0} << (32U - prefixLength);
    }
    std::uint32_t last() const { return address | ~mask(); }
    bool contains(std::uint32_t candidate) const { return (candidate & mask()) == address; }
    bool isEverything() const { return prefixLength == 0; }
};

/// Four decimal numbers and a prefix length, "10.0.0.7/8"; host bits are cleared.
std::optional<Subnet> parseSubnet(std::string_view text);

/// Four decimal numbers, "10.0.0.7".
std::optional<std::uint32_t> parseAddress(std::string_view text);

/// A port or a range of ports. pf lists "80:80" as the range that it was written as.
struct Ports {
    enum class Kind : std::uint8_t { all, one, range };

    Kind kind = Kind::all;
    std::uint16_t first = 0;
    std::uint16_t last = 65535;

    bool operator==(const Ports&) const = default;

    bool contains(std::uint16_t port) const { return first <= port && port <= last; }
};

/// One side of a connection.
struct Endpoint {
    Subnet subnet;
    Ports ports;

    bool operator==(const Endpoint&) const = default;
};

/// Every rule is "quick", and every rule that passes keeps state.
struct Rule {
    Action action = Action::pass;
    Direction direction = Direction::in;
    Protocol protocol = Protocol::any;
    bool namesASubnet = false;  ///< a side was written as a subnet, be it of length 0
    Endpoint from;
    Endpoint to;

    bool operator==(const Rule&) const = default;

    /// The side by which the backend finds a packet's rules: where it comes from when it enters the
    /// host, where it goes to when it leaves. For a virtual network's rules that is the network.
    const Endpoint& keySide() const { return direction == Direction::in ? from : to; }
    const Endpoint& farSide() const { return direction == Direction::in ? to : from; }
};

}  // namespace tarnvale::pfctl
