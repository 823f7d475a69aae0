// SPDX-License-Identifier: MIT
//
// Turns the addresses and ports that a user typed into numbers, and the numbers into the one form
// in which a ruleset writes them. No text of the user's gets into a rule: everything there was read
// as a number and printed from that number.

#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "firewall/policy/FirewallRecords.h"

namespace tarnvale::NetworkFirewall {

/// An IPv4 address in network order.
using IPv4Address = std::array<std::uint8_t, 4>;

struct CIDR {
    IPv4Address address{};  ///< as given: host bits are not cleared
    int prefixLength = 0;   ///< 0 to 32

    bool operator==(const CIDR&) const = default;
};

/// The far side of a rule.
struct Remote {
    std::optional<CIDR> network;  ///< any address when absent

    bool operator==(const Remote&) const = default;
};

/// The ports of a rule.
struct Ports {
    std::uint16_t first = 0;            ///< 0 for any port
    std::optional<std::uint16_t> last;  ///< the end of a range, which may be of one port

    bool operator==(const Ports&) const = default;
};

/// The address as `inet_pton` reads it. As in C, the text ends at its first NUL.
std::optional<IPv4Address> parseIPv4(std::string_view text);

/// Reads an address, or an address, "/" and a prefix length of one or two digits. White space
/// around it is ignored. A bare address has the prefix length 32.
std::optional<CIDR> parseCIDR(std::string_view text);

/// Each byte in decimal, joined with ".".
std::string dottedQuad(std::span<const std::uint8_t> bytes);

/// Whether both have the same length and their first `bits` bits agree. With more `bits` than
/// there are, all must agree.
bool prefixMatches(std::span<const std::uint8_t> a, std::span<const std::uint8_t> b, int bits);

/// The network of a virtual network's subnet, host bits cleared. Only a /20 to /30 inside
/// 192.168.0.0/16 is one.
std::optional<CIDR> parseSubnet(std::string_view text);

/// That network's text, which identifies it in the merge and in the ruleset.
std::optional<std::string> canonicalSubnet(std::string_view text);

/// "any" in any letter case, nothing at all, or what `parseCIDR` reads.
std::optional<Remote> parseRemote(std::string_view text);

/// "any", or an address with its prefix length.
std::optional<std::string> normalizedRemote(std::string_view text);

/// Reads one port, or two in ascending order with "-" or ":" between them. A "-" or ":" that
/// separates nothing, as in "443-", is ignored. The text must not be blank.
std::optional<Ports> parsePorts(std::string_view text);

/// One port, or two joined by ":".
std::optional<std::string> normalizedPorts(std::string_view text);

/// The rule's ports: any port if its protocol has none or its text is blank. No result if the text
/// can't be read.
std::optional<Ports> portsOf(const FirewallRule& rule);

/// Append the form in which a ruleset writes the value: "192.168.64.0/24", "any", "8000:8080".
void append(std::string& out, const CIDR& network);
void append(std::string& out, const Remote& remote);
void append(std::string& out, const Ports& ports);

}  // namespace tarnvale::NetworkFirewall
