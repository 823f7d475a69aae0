// SPDX-License-Identifier: MIT
//
// The floor for reading policies: simdjson, which reads the same fields into the same records.

#pragma once

#include <string_view>
#include <vector>

#include "firewall/policy/FirewallRecords.h"

namespace tarnvale::bench {

/// The networks of a JSON array. Throws for anything else; its members have to come in the order of
/// the fields.
std::vector<NetworkFirewall::FirewallNetworkPolicy> simdjsonPolicies(std::string_view json);

}  // namespace tarnvale::bench
