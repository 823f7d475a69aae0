// SPDX-License-Identifier: MIT

#include "firewall/policy/Review.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <tuple>
#include <unordered_set>
#include <utility>

#include "firewall/policy/Addresses.h"
#include "firewall/policy/Problems.h"

namespace tarnvale::NetworkFirewall {

namespace {

using Owner = std::pair<const std::string, Entry>;

/// The owners, the most recently applied first. Of those with the same time, the greater key comes
/// first.
std::vector<Owner*> byPrecedence(PolicyStore& store) {
    std::vector<Owner*> owners;
    owners.reserve(store.owners.size());
    for (Owner& owner : store.owners) {
        owners.push_back(&owner);
    }
    std::ranges::sort(owners, [](const Owner* a, const Owner* b) {
        return std::tie(a->second.appliedAt.seconds, a->first) >
               std::tie(b->second.appliedAt.seconds, b->first);
    });
    return owners;
}

std::vector<HostAddress> ownNetworks(std::span<const HostAddress> hosts) {
    std::vector<HostAddress> own;
    std::ranges::copy_if(hosts, std::back_inserter(own), isOfOwnNetwork);
    return own;
}

/// The gateway's canonical text, if it can be an address on the subnet.
std::optional<std::string> canonicalGateway(
    const std::optional<std::string>& gateway, const CIDR& subnet) {
    if (!gateway) {
        return std::nullopt;
    }
    const auto address = parseIPv4(*gateway);
    if (!address || !prefixMatches(*address, subnet.address, subnet.prefixLength) ||
        *address == subnet.address) {
        return std::nullopt;
    }
    return dottedQuad(*address);
}

/// Notes the network's enabled rules that can't be written.
void noteSkippedRules(const FirewallNetworkPolicy& network, std::vector<Note>& notes) {
    std::shared_ptr<const std::string> name;
    std::size_t number = 0;
    for (const FirewallRule& rule : network.policy.rules) {
        ++number;
        if (!rule.enabled) {
            continue;
        }
        if (auto problem = ruleProblem(rule)) {
            if (!name) {
                name = std::make_shared<const std::string>(network.name);
            }
            notes.push_back(
                {.networkID = network.networkID,
                 .networkName = name,
                 .ruleNumber = number,
                 .problem = std::move(*problem)});
        }
    }
}

}  // namespace

std::string Note::label() const {
    return ruleNumber == 0 ? *networkName : *networkName + ", rule " + std::to_string(ruleNumber);
}

bool Note::operator==(const Note& other) const {
    return networkID == other.networkID && *networkName == *other.networkName &&
           ruleNumber == other.ruleNumber && problem == other.problem;
}

MergedPolicies mergedPolicies(PolicyStore store) {
    MergedPolicies merged;
    std::unordered_set<std::string> claimed;
    for (Owner* owner : byPrecedence(store)) {
        for (FirewallNetworkPolicy& network : owner->second.policies) {
            const auto subnet = canonicalSubnet(network.subnetCIDR);
            if (claimed.insert(subnet ? *subnet : network.subnetCIDR).second) {
                merged.policies.push_back(std::move(network));
            } else {
                merged.dropped.push_back({.owner = owner->first, .policy = std::move(network)});
            }
        }
    }
    return merged;
}

std::string claimMessage(std::string_view owner, const FirewallNetworkPolicy& policy) {
    std::string message = policy.subnetCIDR;
    message += " is claimed by networks of more than one user; ";
    if (owner == legacyOwner) {
        message += "an unowned";
    } else {
        message += "uid ";
        message += owner;
        message += "'s";
    }
    message += " \"" + policy.name + "\" is left out for the most recently applied one.";
    return message;
}

Review review(std::vector<FirewallNetworkPolicy> policies, std::span<const HostAddress> hosts) {
    const std::vector<HostAddress> own = ownNetworks(hosts);
    Review result;
    for (FirewallNetworkPolicy& network : policies) {
        if (!network.policy.enabled) {
            continue;
        }
        if (auto problem = subnetProblem(network.subnetCIDR, own)) {
            result.refused.push_back(
                {.networkID = network.networkID,
                 .networkName = std::make_shared<const std::string>(std::move(network.name)),
                 .problem = std::move(*problem)});
            continue;
        }
        noteSkippedRules(network, result.skippedRules);
        const CIDR subnet = parseSubnet(network.subnetCIDR).value();
        network.gatewayIPv4 = canonicalGateway(network.gatewayIPv4, subnet);
        network.subnetCIDR.clear();
        append(network.subnetCIDR, subnet);
        result.enforceable.push_back(std::move(network));
    }
    return result;
}

}  // namespace tarnvale::NetworkFirewall
