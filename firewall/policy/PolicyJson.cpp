// SPDX-License-Identifier: MIT

#include "firewall/policy/PolicyJson.h"

#include "firewall/policy/HelperError.h"
#include "support/JsonReader.h"

namespace tarnvale::NetworkFirewall {

std::vector<FirewallNetworkPolicy> decodePolicies(std::string_view json) {
    return support::decodeJson<std::vector<FirewallNetworkPolicy>>(json);
}

std::vector<FirewallNetworkPolicy> decodePolicyData(std::string_view policyData) {
    try {
        return decodePolicies(policyData);
    } catch (const support::JsonError& error) {
        throw HelperFirewall::HelperError::decodeFailed(error.what());
    }
}

}  // namespace tarnvale::NetworkFirewall
