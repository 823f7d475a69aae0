// SPDX-License-Identifier: MIT
//
// Rules and sets of packets in the words of the people who wrote the rules.

#pragma once

#include <span>
#include <string>

#include "firewall/analysis/Lines.h"
#include "firewall/policy/FirewallRecords.h"

namespace tarnvale::FirewallAnalysis {

/// What the rule says, in brief: "deny 10.0.0.0/8", "allow tcp 22", "deny udp 53 to 1.1.1.1/32",
/// "allow everything". Texts that don't parse are quoted as they are.
std::string words(const NetworkFirewall::FirewallRule& rule);

/// "22", "8000-8080".
std::string words(const PortRange& ports);

}  // namespace tarnvale::FirewallAnalysis
