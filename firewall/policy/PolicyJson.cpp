// SPDX-License-Identifier: MIT

#include "firewall/policy/PolicyJson.h"

namespace tarnvale::NetworkFirewall {

std::vector<FirewallNetworkPolicy> decodePolicies(std::string_view json) {
    return support::decodeJson<std::vector<FirewallNetworkPolicy>>(json);
}

}  // namespace tarnvale::NetworkFirewall
