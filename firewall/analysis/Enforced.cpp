// SPDX-License-Identifier: MIT

#include "firewall/analysis/Enforced.h"

#include <algorithm>
#include <iterator>
#include <unordered_map>
#include <utility>

#include "firewall/policy/Problems.h"
#include "firewall/policy/Review.h"

namespace tarnvale::FirewallAnalysis {

namespace {

using NetworkFirewall::FirewallNetworkPolicy;
using NetworkFirewall::HostAddress;
using Standing = ReviewedNetwork::Standing;

ReviewedNetwork reviewed(FirewallNetworkPolicy policy, std::span<const HostAddress> own) {
    ReviewedNetwork network;
    network.writtenSubnet = policy.subnetCIDR;
    network.writtenGateway = policy.gatewayIPv4;
    if (!policy.policy.enabled) {
        network.standing = Standing::off;
        network.policy = std::move(policy);
        return network;
    }
    if (auto problem = NetworkFirewall::subnetProblem(policy.subnetCIDR, own)) {
        network.standing = Standing::refused;
        network.problem = std::move(*problem);
        network.policy = std::move(policy);
        return network;
    }
    std::vector<FirewallNetworkPolicy> alone;
    alone.push_back(std::move(policy));
    network.policy = std::move(NetworkFirewall::review(std::move(alone), own).enforceable.at(0));
    return network;
}

}  // namespace

EnforcedList enforcedList(
    std::vector<FirewallNetworkPolicy> list, std::span<const HostAddress> hosts) {
    std::vector<HostAddress> own;
    EnforcedList result;
    for (const HostAddress& host : hosts) {
        if (NetworkFirewall::isOfOwnNetwork(host)) {
            own.push_back(host);
        }
        NetworkFirewall::IPv4Address address{};
        if (host.bytes.size() == address.size()) {
            std::ranges::copy(host.bytes, address.begin());
            result.ruleset.hostAddresses.push_back(addressNumber(address));
        }
    }

    result.networks.reserve(list.size());
    std::unordered_map<std::string, std::size_t> claimed;
    for (FirewallNetworkPolicy& policy : list) {
        const std::size_t place = result.networks.size();
        ReviewedNetwork& network = result.networks.emplace_back(reviewed(std::move(policy), own));
        if (network.standing != Standing::enforced) {
            continue;
        }
        const auto [claim, isFirst] = claimed.try_emplace(network.policy.subnetCIDR, place);
        if (!isFirst) {
            network.standing = Standing::claimed;
            network.claimedBy = claim->second;
            continue;
        }
        result.places.push_back(place);
        result.ruleset.networks.push_back(linesOf(network.policy));
        if (network.policy.gatewayIPv4) {
            const auto gateway = NetworkFirewall::parseIPv4(*network.policy.gatewayIPv4);
            result.ruleset.hostAddresses.push_back(addressNumber(gateway.value()));
        }
    }
    return result;
}

}  // namespace tarnvale::FirewallAnalysis
