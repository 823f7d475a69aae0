// SPDX-License-Identifier: MIT
//
// A packet that opens a connection, as people write it: "tcp 192.168.64.2 -> 10.1.2.3:443".

#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "firewall/analysis/Lines.h"

namespace tarnvale::FirewallAnalysis {

/// Why a text isn't a packet; what() is a whole sentence.
class PacketError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// One side of a packet. The ports are given where the protocol has them; a source's may be left
/// open, which stands for a port that means nothing, as a system chooses one.
struct PacketEnd {
    std::optional<Address> address;  ///< absent for IPv6, which no line is about
    std::string written;             ///< the address as it was written
    std::optional<std::uint16_t> port;

    bool operator==(const PacketEnd&) const = default;
};

struct Packet {
    std::uint8_t protocol = 6;  ///< the protocol's own number
    PacketEnd source;
    PacketEnd destination;

    bool operator==(const Packet&) const = default;

    bool isIPv6() const { return !source.address; }

    /// What it is for a line of that direction.
    Kind kind(Direction direction) const;
};

/// Reads a protocol ("tcp", "udp", "icmp", or a number up to 255), the source, "->" or "to", and
/// the destination. An address may be IPv6, in brackets if a port follows. TCP and UDP need the
/// port that they go to; other protocols have none. Throws `PacketError`.
Packet parsePacket(std::string_view text);

/// The packet as `parsePacket` reads it.
std::string text(const Packet& packet);

}  // namespace tarnvale::FirewallAnalysis
