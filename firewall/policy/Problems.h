// SPDX-License-Identifier: MIT
//
// Says in one sentence for the user what is wrong with a network's subnet or with a rule. The
// sentences quote the texts as they were sent.

#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "firewall/policy/FirewallRecords.h"
#include "platform/HostAddresses.h"

namespace tarnvale::NetworkFirewall {

/// Why rules may not be keyed on the subnet on a machine with these addresses: virtual networks
/// never get it, or it overlaps one of the machine's own networks.
std::optional<std::string> subnetProblem(
    std::string_view subnetText, std::span<const HostAddress> hosts);

/// Why the rule can't be written. If both its texts are invalid, reports the remote.
std::optional<std::string> ruleProblem(const FirewallRule& rule);

/// Whether no subnet may overlap the address: it is an IPv4 address, and its interface is not a
/// bridge that the system made for virtual networks.
bool isOfOwnNetwork(const HostAddress& host);

}  // namespace tarnvale::NetworkFirewall
