// SPDX-License-Identifier: MIT
//
// The lines of the ruleset as conditions on packets. A line of a network is about traffic between
// the network's machines (its subnet) and a remote side, in one direction. AnchorText.h writes the
// very same lines, in the same order.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "firewall/policy/Addresses.h"
#include "firewall/policy/FirewallRecords.h"

namespace tarnvale::FirewallAnalysis {

/// As pf sees it, which sits on the host's side: "in" comes from the machines.
enum class Direction : std::uint8_t { in, out };

inline constexpr std::array allDirections{Direction::in, Direction::out};

/// An IPv4 address as a number.
using Address = std::uint32_t;

/// All from `first` to `last`, both included.
struct AddressRange {
    Address first = 0;
    Address last = ~Address{0};

    bool operator==(const AddressRange&) const = default;
    constexpr bool contains(Address address) const { return first <= address && address <= last; }
    constexpr bool contains(const AddressRange& other) const {
        return first <= other.first && other.last <= last;
    }
};

struct PortRange {
    std::uint16_t first = 0;
    std::uint16_t last = 65535;

    bool operator==(const PortRange&) const = default;
    constexpr bool contains(std::uint16_t port) const { return first <= port && port <= last; }
    constexpr bool contains(const PortRange& other) const {
        return first <= other.first && other.last <= last;
    }
};

/// What lines tell apart besides addresses and the port that a packet goes to. Only the DHCP lines
/// look at where a packet comes from: `dhcp` is UDP from port 68 ("in") or 67 ("out"), `udp` is
/// UDP from any other port.
enum class Kind : std::uint8_t { tcp, udp, dhcp, icmp, other };

inline constexpr std::array allKinds{Kind::tcp, Kind::udp, Kind::dhcp, Kind::icmp, Kind::other};

/// A set of kinds.
class Kinds {
public:
    constexpr Kinds() = default;
    constexpr Kinds(std::initializer_list<Kind> kinds) {
        for (const Kind kind : kinds) {
            add(kind);
        }
    }

    constexpr void add(Kind kind) { bits_ = static_cast<std::uint8_t>(bits_ | bit(kind)); }
    constexpr bool contains(Kind kind) const { return (bits_ & bit(kind)) != 0; }
    constexpr bool contains(Kinds other) const { return (other.bits_ & ~bits_) == 0; }
    constexpr bool overlaps(Kinds other) const { return (bits_ & other.bits_) != 0; }
    constexpr bool isEmpty() const { return bits_ == 0; }
    auto operator<=>(const Kinds&) const = default;  // NOLINT(modernize-use-nullptr): misread

private:
    static constexpr unsigned bit(Kind kind) { return 1U << static_cast<unsigned>(kind); }

    std::uint8_t bits_ = 0;
};

inline constexpr Kinds everyKind{Kind::tcp, Kind::udp, Kind::dhcp, Kind::icmp, Kind::other};

/// The port from which a UDP packet is of the kind `dhcp`.
constexpr std::uint16_t dhcpSourcePort(Direction direction) {
    return direction == Direction::in ? 68 : 67;
}

/// The port that it is sent to, for what the DHCP line of that direction is about.
constexpr std::uint16_t dhcpPort(Direction direction) {
    return direction == Direction::in ? 67 : 68;
}

/// One line. The first line that matches a packet decides.
struct Line {
    enum class Origin : std::uint8_t { dhcp, dns, rule, byDefault };

    Direction direction = Direction::in;
    bool passes = false;
    Kinds kinds = everyKind;
    AddressRange remote;  ///< all addresses that share a prefix
    PortRange ports;      ///< that the packet goes to; kinds without ports have all of them
    Origin origin = Origin::byDefault;
    std::size_t ruleNumber = 0;  ///< counted from 1; 0 for a line that no rule gave

    constexpr bool matches(Kind kind, Address address, std::uint16_t port) const {
        return kinds.contains(kind) && remote.contains(address) && ports.contains(port);
    }
    bool operator==(const Line&) const = default;
};

/// The lines of one network, in order. The last one of each direction matches everything.
struct NetworkLines {
    AddressRange subnet;
    std::vector<Line> lines;
};

Address addressNumber(const NetworkFirewall::IPv4Address& address);
NetworkFirewall::IPv4Address addressBytes(Address address);

/// The addresses that share the CIDR's prefix.
AddressRange rangeOf(const NetworkFirewall::CIDR& cidr);

/// How many bits all addresses of the range share. The range must be what a prefix covers.
int prefixLengthOf(const AddressRange& range);

/// "any", "10.0.0.0/8", or "10.1.2.3" for a single address.
std::string text(const AddressRange& range);

/// The lines of a network that may be enforced: what `anchorText` writes for it. The subnet must
/// have a canonical form.
NetworkLines linesOf(const NetworkFirewall::FirewallNetworkPolicy& network);

/// The line that decides, by its place; nothing if none does.
std::optional<std::size_t> decidingLine(
    const NetworkLines& network,
    Direction direction,
    Kind kind,
    Address remote,
    std::uint16_t port);

}  // namespace tarnvale::FirewallAnalysis
