// SPDX-License-Identifier: MIT
//
// Rules and sets of packets in the words of the people who wrote the rules.

#pragma once

#include <span>
#include <string>

#include "firewall/analysis/Differences.h"
#include "firewall/analysis/Lines.h"
#include "firewall/policy/FirewallRecords.h"

namespace tarnvale::FirewallAnalysis {

/// What the rule says, in brief: "deny 10.0.0.0/8", "allow tcp 22", "deny udp 53 to 1.1.1.1/32",
/// "allow everything". Texts that don't parse are quoted as they are.
std::string words(const NetworkFirewall::FirewallRule& rule);

/// "22", "8000-8080".
std::string words(const PortRange& ports);

/// "anywhere", "10.0.0.0/8", "anywhere but 10.0.0.0/8 and 172.16.0.0/12".
std::string words(std::span<const Region> regions);

/// "everything", "icmp", "tcp 22", "tcp and udp 80 and 443", "tcp (all ports but 22)".
std::string words(Kinds kinds, std::span<const PortRange> ports, Direction direction);

/// The same of what changes: "everything but DHCP".
std::string packetWords(const PacketChange& change);

/// "a", "a and b", "a, b and c".
std::string joined(std::span<const std::string> parts);

}  // namespace tarnvale::FirewallAnalysis
