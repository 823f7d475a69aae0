// SPDX-License-Identifier: MIT

#include "firewall/policy/PolicyStore.h"

#include <algorithm>
#include <iterator>
#include <span>
#include <tuple>
#include <type_traits>
#include <utility>

#include "firewall/policy/PolicyJson.h"
#include "support/JsonReader.h"
#include "support/JsonWriter.h"

namespace tarnvale::NetworkFirewall {

constexpr auto jsonMembers(std::type_identity<Entry> /*type*/) {
    return std::tuple{
        support::JsonMember{"policies", &Entry::policies},
        support::JsonMember{"appliedAt", &Entry::appliedAt}};
}

constexpr auto jsonMembers(std::type_identity<PolicyStore> /*type*/) {
    return std::tuple{support::JsonMember{"owners", &PolicyStore::owners}};
}

namespace {

/// Whether some network's ID is in both lists.
bool haveNetworkInCommon(
    std::span<const FirewallNetworkPolicy> a, std::span<const FirewallNetworkPolicy> b) {
    std::vector<support::Uuid> ids;
    ids.reserve(a.size());
    std::ranges::transform(a, std::back_inserter(ids), &FirewallNetworkPolicy::networkID);
    std::ranges::sort(ids);
    return std::ranges::any_of(b, [&](const FirewallNetworkPolicy& network) {
        return std::ranges::binary_search(ids, network.networkID);
    });
}

/// The networks sorted by ID; those with the same ID stay in the list's order.
std::vector<const FirewallNetworkPolicy*> sortedByID(
    const std::vector<FirewallNetworkPolicy>& policies) {
    std::vector<const FirewallNetworkPolicy*> sorted;
    sorted.reserve(policies.size());
    for (const FirewallNetworkPolicy& network : policies) {
        sorted.push_back(&network);
    }
    std::ranges::stable_sort(sorted, {}, &FirewallNetworkPolicy::networkID);
    return sorted;
}

}  // namespace

std::string encodeStore(const PolicyStore& store) {
    return support::encodeJson(store, support::JsonForm::pretty);
}

void encodeStore(const PolicyStore& store, const std::function<void(std::string_view)>& take) {
    support::encodeJson(store, support::JsonForm::pretty, take);
}

std::optional<PolicyStore> decodeStore(std::string_view data) {
    try {
        if (!support::JsonReader(data).nextIsArray()) {
            return support::decodeJson<PolicyStore>(data);
        }
        PolicyStore store;
        if (auto policies = decodePolicies(data); !policies.empty()) {
            store.owners.try_emplace(
                std::string(legacyOwner),
                Entry{std::move(policies), support::ReferenceDate::distantPast()});
        }
        return store;
    } catch (const support::JsonError&) {
        return std::nullopt;
    }
}

std::vector<FirewallNetworkPolicy> setPolicies(
    PolicyStore& store,
    std::string_view ownerKey,
    std::vector<FirewallNetworkPolicy> policies,
    support::ReferenceDate appliedAt,
    bool callerIsConsoleUser) {
    auto& owners = store.owners;
    std::optional<std::vector<FirewallNetworkPolicy>> previous;
    if (const auto own = owners.find(ownerKey); own != owners.end()) {
        previous = std::move(own->second.policies);
    }

    // The user at the console, or any user who applies one of the old networks, adopts the old
    // list.
    if (const auto legacy = owners.find(legacyOwner);
        legacy != owners.end() &&
        (callerIsConsoleUser || haveNetworkInCommon(legacy->second.policies, policies))) {
        if (!previous) {
            previous = std::move(legacy->second.policies);
        }
        owners.erase(legacy);
    }

    if (!policies.empty()) {
        owners.insert_or_assign(std::string(ownerKey), Entry{std::move(policies), appliedAt});
    } else if (const auto own = owners.find(ownerKey); own != owners.end()) {
        owners.erase(own);
    }
    return std::move(previous).value_or(std::vector<FirewallNetworkPolicy>());
}

bool samePolicies(
    const std::vector<FirewallNetworkPolicy>& a, const std::vector<FirewallNetworkPolicy>& b) {
    return a.size() == b.size() &&
           std::ranges::equal(
               sortedByID(a),
               sortedByID(b),
               [](const FirewallNetworkPolicy* one, const FirewallNetworkPolicy* other) {
                   return *one == *other;
               });
}

std::size_t otherUsersNetworkCount(const PolicyStore& store, std::uint32_t uid) {
    const std::string own = std::to_string(uid);
    std::size_t count = 0;
    for (const auto& [owner, entry] : store.owners) {
        if (owner != own) {
            count += entry.policies.size();
        }
    }
    return count;
}

}  // namespace tarnvale::NetworkFirewall
