// SPDX-License-Identifier: MIT
//
// The JSON form of the firewall records, as the application sends them: objects whose members bear
// the names of the fields. Nothing is trimmed, and but for "gatewayIPv4" nothing has a default.

#pragma once

#include <string_view>
#include <vector>

#include "firewall/policy/FirewallRecords.h"

namespace tarnvale::NetworkFirewall {

/// The networks of a UTF-8 JSON array. Throws `support::JsonError`, which says what was wrong and
/// where.
std::vector<FirewallNetworkPolicy> decodePolicies(std::string_view json);

}  // namespace tarnvale::NetworkFirewall
