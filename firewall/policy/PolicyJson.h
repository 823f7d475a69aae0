// SPDX-License-Identifier: MIT
//
// Reads the JSON in which the application sends its networks; the store keeps them in the same
// form. Each record is an object whose members are named like its fields. Every member but
// "gatewayIPv4" is required, and texts are taken as they are.

#pragma once

#include <string_view>
#include <tuple>
#include <type_traits>
#include <vector>

#include "firewall/policy/FirewallRecords.h"
#include "support/Json.h"

namespace tarnvale::NetworkFirewall {

/// The networks of a UTF-8 JSON array. Throws `support::JsonError`, which says what is wrong and
/// where.
std::vector<FirewallNetworkPolicy> decodePolicies(std::string_view json);

/// The same for data that a user wants enforced. Throws `HelperFirewall::HelperError` instead, with
/// the sentence for that user.
std::vector<FirewallNetworkPolicy> decodePolicyData(std::string_view policyData);

constexpr auto jsonCases(std::type_identity<FirewallRule::Direction> /*type*/) {
    return FirewallRule::allDirections;
}
constexpr auto jsonCases(std::type_identity<FirewallRule::Action> /*type*/) {
    return FirewallRule::allActions;
}
constexpr auto jsonCases(std::type_identity<FirewallRule::Proto> /*type*/) {
    return FirewallRule::allProtos;
}

constexpr auto jsonMembers(std::type_identity<FirewallRule> /*type*/) {
    return std::tuple{
        support::JsonMember{"id", &FirewallRule::id},
        support::JsonMember{"enabled", &FirewallRule::enabled},
        support::JsonMember{"direction", &FirewallRule::direction},
        support::JsonMember{"action", &FirewallRule::action},
        support::JsonMember{"proto", &FirewallRule::proto},
        support::JsonMember{"remoteCIDR", &FirewallRule::remoteCIDR},
        support::JsonMember{"ports", &FirewallRule::ports}};
}

constexpr auto jsonMembers(std::type_identity<NetworkFirewallPolicy> /*type*/) {
    return std::tuple{
        support::JsonMember{"enabled", &NetworkFirewallPolicy::enabled},
        support::JsonMember{"defaultInbound", &NetworkFirewallPolicy::defaultInbound},
        support::JsonMember{"defaultOutbound", &NetworkFirewallPolicy::defaultOutbound},
        support::JsonMember{"rules", &NetworkFirewallPolicy::rules}};
}

constexpr auto jsonMembers(std::type_identity<FirewallNetworkPolicy> /*type*/) {
    return std::tuple{
        support::JsonMember{"networkID", &FirewallNetworkPolicy::networkID},
        support::JsonMember{"name", &FirewallNetworkPolicy::name},
        support::JsonMember{"subnetCIDR", &FirewallNetworkPolicy::subnetCIDR},
        support::JsonMember{"gatewayIPv4", &FirewallNetworkPolicy::gatewayIPv4},
        support::JsonMember{"dnsProxyEnabled", &FirewallNetworkPolicy::dnsProxyEnabled},
        support::JsonMember{"policy", &FirewallNetworkPolicy::policy}};
}

}  // namespace tarnvale::NetworkFirewall
