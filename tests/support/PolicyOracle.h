// SPDX-License-Identifier: MIT
//
// What another JSON reader and a plain mapping of its values make of a policy document.

#pragma once

#include <exception>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "firewall/policy/FirewallRecords.h"
#include "tests/support/JsonOracle.h"

namespace tarnvale::test {

namespace policy_oracle {

using NetworkFirewall::FirewallNetworkPolicy;
using NetworkFirewall::FirewallRule;

inline support::Uuid uuid(const OracleValue& value) {
    return support::Uuid::parse(jsonText(value)).value();
}

template <class Cases>
auto word(const OracleValue& value, const Cases& cases) {
    for (const auto candidate : cases) {
        if (jsonText(value) == rawValue(candidate)) {
            return candidate;
        }
    }
    throw std::invalid_argument("no such word");
}

inline FirewallRule ruleOf(const OracleValue& value) {
    return {
        .id = uuid(value.at("id")),
        .enabled = jsonFlag(value.at("enabled")),
        .direction = word(value.at("direction"), FirewallRule::allDirections),
        .action = word(value.at("action"), FirewallRule::allActions),
        .proto = word(value.at("proto"), FirewallRule::allProtos),
        .remoteCIDR = jsonText(value.at("remoteCIDR")),
        .ports = jsonText(value.at("ports"))};
}

inline FirewallNetworkPolicy networkOf(const OracleValue& value) {
    const OracleValue& policy = value.at("policy");
    const bool hasGateway = value.contains("gatewayIPv4") && !value.at("gatewayIPv4").isNull();
    FirewallNetworkPolicy network{
        .networkID = uuid(value.at("networkID")),
        .name = jsonText(value.at("name")),
        .subnetCIDR = jsonText(value.at("subnetCIDR")),
        .gatewayIPv4 = hasGateway ? std::optional(jsonText(value.at("gatewayIPv4"))) : std::nullopt,
        .dnsProxyEnabled = jsonFlag(value.at("dnsProxyEnabled")),
        .policy = {
            .enabled = jsonFlag(policy.at("enabled")),
            .defaultInbound = word(policy.at("defaultInbound"), FirewallRule::allActions),
            .defaultOutbound = word(policy.at("defaultOutbound"), FirewallRule::allActions),
            .rules = {}}};
    for (const OracleValue& item : jsonList(policy.at("rules"))) {
        network.policy.rules.push_back(ruleOf(item));
    }
    return network;
}

}  // namespace policy_oracle

/// The networks of the document; nothing if it isn't a list of networks.
inline std::optional<std::vector<NetworkFirewall::FirewallNetworkPolicy>> policiesByOracle(
    const OracleValue& document) {
    try {
        std::vector<NetworkFirewall::FirewallNetworkPolicy> networks;
        for (const OracleValue& item : jsonList(document)) {
            networks.push_back(policy_oracle::networkOf(item));
        }
        return networks;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

}  // namespace tarnvale::test
