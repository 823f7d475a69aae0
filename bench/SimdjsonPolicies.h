// SPDX-License-Identifier: MIT
//
// The floor for reading policies: simdjson, which reads the same fields into the same records.

#pragma once

#include <string_view>
#include <vector>

#include "firewall/policy/FirewallRecords.h"

namespace tarnvale::bench {

/// The networks of a JSON array, whose members must come in the order of the fields. Throws for
/// anything else.
std::vector<NetworkFirewall::FirewallNetworkPolicy> simdjsonPolicies(std::string_view json);

}  // namespace tarnvale::bench
