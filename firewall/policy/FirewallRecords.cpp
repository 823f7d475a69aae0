// SPDX-License-Identifier: MIT

#include "firewall/policy/FirewallRecords.h"

#include <cstring>

namespace tarnvale {

namespace {

/// Combines the hashes of fields into one that depends on their order.
class Hasher {
public:
    template <class Field>
    Hasher& add(const Field& field) {
        hash_ ^= std::hash<Field>()(field) + 0x9E3779B9U + (hash_ << 6) + (hash_ >> 2);
        return *this;
    }

    Hasher& add(const support::Uuid& uuid) {
        std::array<std::uint64_t, 2> halves{};
        std::memcpy(halves.data(), uuid.bytes.data(), sizeof halves);
        return add(halves[0]).add(halves[1]);
    }

    std::size_t result() const { return hash_; }

private:
    std::size_t hash_ = 0;
};

}  // namespace

}  // namespace tarnvale

std::size_t std::hash<tarnvale::NetworkFirewall::FirewallRule>::operator()(
    const tarnvale::NetworkFirewall::FirewallRule& rule) const noexcept {
    return tarnvale::Hasher()
        .add(rule.id)
        .add(rule.enabled)
        .add(rule.direction)
        .add(rule.action)
        .add(rule.proto)
        .add(rule.remoteCIDR)
        .add(rule.ports)
        .result();
}

std::size_t std::hash<tarnvale::NetworkFirewall::NetworkFirewallPolicy>::operator()(
    const tarnvale::NetworkFirewall::NetworkFirewallPolicy& policy) const noexcept {
    tarnvale::Hasher hasher;
    hasher.add(policy.enabled)
        .add(policy.defaultInbound)
        .add(policy.defaultOutbound)
        .add(policy.rules.size());
    for (const auto& rule : policy.rules) {
        hasher.add(rule);
    }
    return hasher.result();
}

std::size_t std::hash<tarnvale::NetworkFirewall::FirewallNetworkPolicy>::operator()(
    const tarnvale::NetworkFirewall::FirewallNetworkPolicy& network) const noexcept {
    return tarnvale::Hasher()
        .add(network.networkID)
        .add(network.name)
        .add(network.subnetCIDR)
        .add(network.gatewayIPv4)
        .add(network.dnsProxyEnabled)
        .add(network.policy)
        .result();
}
