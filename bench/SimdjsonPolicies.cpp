// SPDX-License-Identifier: MIT

#include "bench/SimdjsonPolicies.h"

#include <array>
#include <cstddef>
#include <stdexcept>

#include <simdjson.h>

namespace tarnvale::bench {

namespace {

using NetworkFirewall::FirewallNetworkPolicy;
using NetworkFirewall::FirewallRule;
using simdjson::ondemand::object;

template <class Word, std::size_t count>
Word word(std::string_view text, const std::array<Word, count>& words) {
    for (const Word candidate : words) {
        if (text == rawValue(candidate)) {
            return candidate;
        }
    }
    throw std::runtime_error("unknown word");
}

std::string_view text(object& record, std::string_view key) {
    return record.find_field(key);
}

support::Uuid uuid(object& record, std::string_view key) {
    return support::Uuid::parse(text(record, key)).value();
}

FirewallRule rule(object record) {
    FirewallRule rule;
    rule.id = uuid(record, "id");
    rule.enabled = record.find_field("enabled");
    rule.direction = word(text(record, "direction"), FirewallRule::allDirections);
    rule.action = word(text(record, "action"), FirewallRule::allActions);
    rule.proto = word(text(record, "proto"), FirewallRule::allProtos);
    rule.remoteCIDR = text(record, "remoteCIDR");
    rule.ports = text(record, "ports");
    return rule;
}

FirewallNetworkPolicy network(object record) {
    FirewallNetworkPolicy network;
    network.networkID = uuid(record, "networkID");
    network.name = text(record, "name");
    network.subnetCIDR = text(record, "subnetCIDR");
    network.gatewayIPv4 = text(record, "gatewayIPv4");
    network.dnsProxyEnabled = record.find_field("dnsProxyEnabled");
    object policy = record.find_field("policy");
    network.policy.enabled = policy.find_field("enabled");
    network.policy.defaultInbound = word(text(policy, "defaultInbound"), FirewallRule::allActions);
    network.policy.defaultOutbound =
        word(text(policy, "defaultOutbound"), FirewallRule::allActions);
    for (object item : policy.find_field("rules").get_array()) {
        network.policy.rules.push_back(rule(item));
    }
    return network;
}

}  // namespace

std::vector<FirewallNetworkPolicy> simdjsonPolicies(std::string_view json) {
    simdjson::ondemand::parser parser;
    const simdjson::padded_string padded(json);
    simdjson::ondemand::document document = parser.iterate(padded);
    std::vector<FirewallNetworkPolicy> networks;
    for (object item : document.get_array()) {
        networks.push_back(network(item));
    }
    return networks;
}

}  // namespace tarnvale::bench
