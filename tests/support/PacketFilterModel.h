// SPDX-License-Identifier: MIT
//
// What pf does with a ruleset of the helper's form, worked out packet by packet: the first line
// that matches decides, and a packet that a line passed leaves a state by which its flow goes on.
// The model shares no code with the pfctl that is measured by it.

#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tests/support/Exchange.h"
#include "tests/support/NetworkLab.h"

namespace tarnvale::test {

/// Which way a packet crosses an interface, seen from the router.
enum class Direction : std::uint8_t { in, out };

/// What the packets of one flow have in common. For a ping, both ports are the identifier.
struct Flow {
    Protocol protocol = Protocol::tcp;
    std::uint32_t source = 0;
    std::uint32_t destination = 0;
    std::uint16_t sourcePort = 0;
    std::uint16_t destinationPort = 0;

    Flow reversed() const { return {protocol, destination, source, destinationPort, sourcePort}; }
    auto operator<=>(const Flow&) const = default;  // NOLINT(modernize-use-nullptr): misread
};

class PacketFilterModel {
public:
    /// Replaces the lines; states stay. Throws `std::invalid_argument` for a line of another form.
    void load(const std::string& ruleset);

    /// Judges one packet at one interface. `opening` says that a TCP packet is the first of its
    /// connection, the only kind that a `pass` line accepts.
    bool passes(Direction direction, const Flow& flow, bool opening = true);

    /// Whether the exchange is answered: each packet of it passes at each interface it crosses.
    bool answers(const Exchange& exchange);

    /// For each line, how many packets it decided on.
    const std::vector<std::size_t>& matches() const { return matches_; }

private:
    struct Network {
        std::uint32_t address = 0;
        std::uint32_t mask = 0;

        bool contains(std::uint32_t host) const { return ((host ^ address) & mask) == 0; }
    };
    struct Ports {
        std::uint16_t first = 0;
        std::uint16_t last = 65535;

        bool contain(std::uint16_t port) const { return first <= port && port <= last; }
    };
    struct End {
        Network network;
        Ports ports;
    };
    struct Line {
        bool pass = false;
        Direction direction = Direction::in;
        std::optional<Protocol> protocol;
        End from;
        End to;
    };

    static Line parsed(const std::string& text);
    static End parsedEnd(std::vector<std::string>& words);
    static bool matchesLine(const Line& line, Direction direction, const Flow& flow, bool opening);

    std::vector<Line> lines_;
    std::vector<std::size_t> matches_;
    std::set<std::pair<Direction, Flow>> states_;
};

}  // namespace tarnvale::test
