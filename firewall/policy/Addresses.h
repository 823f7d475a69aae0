// SPDX-License-Identifier: MIT
//
// The addresses and ports of the firewall records: from the text that a user typed to numbers, and
// from the numbers to the one form in which a ruleset writes them. Only what was read as numbers
// and printed from numbers ever gets into a rule.

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
    std::optional<CIDR> network;  ///< nothing stands for any address

    bool operator==(const Remote&) const = default;
};

/// The ports of a rule.
struct Ports {
    std::uint16_t first = 0;            ///< 0 stands for any port
    std::optional<std::uint16_t> last;  ///< of a range, which may be of one port; else nothing

    bool operator==(const Ports&) const = default;
};

/// What `inet_pton` makes of the text, which ends at its first NUL as it does for C.
std::optional<IPv4Address> parseIPv4(std::string_view text);

/// An address, or an address, "/" and a prefix length of one or two digits, with white space
/// around. A bare address has the prefix length 32.
std::optional<CIDR> parseCIDR(std::string_view text);

/// Each byte in decimal, joined with ".".
std::string dottedQuad(std::span<const std::uint8_t> bytes);

/// Whether both have the same length and their first `bits` bits agree; bits that are not there
/// are not asked for.
bool prefixMatches(std::span<const std::uint8_t> a, std::span<const std::uint8_t> b, int bits);

/// The network that the text puts a subnet on, host bits cleared; nothing unless it is a /20 to
/// /30 inside 192.168.0.0/16.
std::optional<CIDR> parseSubnet(std::string_view text);

/// That network's text, by which it is known in the merge and in the ruleset.
std::optional<std::string> canonicalSubnet(std::string_view text);

/// "any" in any letter case, nothing at all, or what `parseCIDR` reads.
std::optional<Remote> parseRemote(std::string_view text);

/// "any", or an address with its prefix length.
std::optional<std::string> normalizedRemote(std::string_view text);

/// One port, or two in ascending order between which there is "-" or ":". These also are passed
/// over where they separate nothing, as in "443-". The text must not be blank.
std::optional<Ports> parsePorts(std::string_view text);

/// One port, or two joined by ":".
std::optional<std::string> normalizedPorts(std::string_view text);

/// The ports that the rule is about: any port where its protocol has none or its text is blank,
/// nothing when the text can't be read.
std::optional<Ports> portsOf(const FirewallRule& rule);

/// Append the form in which a ruleset writes the value: "192.168.64.0/24", "any", "8000:8080".
void append(std::string& out, const CIDR& network);
void append(std::string& out, const Remote& remote);
void append(std::string& out, const Ports& ports);

}  // namespace tarnvale::NetworkFirewall
