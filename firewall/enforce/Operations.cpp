// SPDX-License-Identifier: MIT

#include "firewall/enforce/Operations.h"

#include <chrono>
#include <exception>
#include <span>
#include <unordered_set>
#include <utility>
#include <vector>

#include "core/base/AppSupport.h"
#include "core/base/HelperLog.h"
#include "firewall/enforce/LegacyCleanup.h"
#include "firewall/enforce/Pfctl.h"
#include "firewall/enforce/StoreFile.h"
#include "firewall/policy/AnchorText.h"
#include "firewall/policy/HelperError.h"
#include "firewall/policy/PolicyJson.h"
#include "firewall/policy/PolicyStore.h"
#include "firewall/policy/Review.h"
#include "firewall/policy/Summary.h"
#include "platform/HostAddresses.h"
#include "support/DescribedError.h"
#include "support/Files.h"
#include "support/Mutex.h"
#include "support/Timestamp.h"

namespace tarnvale::HelperFirewall {
namespace {

using NetworkFirewall::FirewallNetworkPolicy;
using NetworkFirewall::HostAddress;
using NetworkFirewall::PolicyStore;
using NetworkFirewall::Review;
using support::FileError;
using support::MutexLock;

std::string rulesetPath() {
    return std::string(appSupportDirectory) + "/firewall.pf.conf";
}

/// Merges all users' lists, logs which networks that leaves out, and reviews the rest.
Review reviewAll(PolicyStore store, std::span<const HostAddress> hosts) {
    auto merged = NetworkFirewall::mergedPolicies(std::move(store));
    for (const auto& claim : merged.dropped) {
        helperLog(NetworkFirewall::claimMessage(claim.owner, claim.policy));
    }
    return NetworkFirewall::review(std::move(merged.policies), hosts);
}

/// Each network's subnet, in order. Where several networks share one, it comes once.
std::vector<std::string> subnetsOf(std::span<const FirewallNetworkPolicy> networks) {
    std::vector<std::string> subnets;
    std::unordered_set<std::string_view> known;
    for (const auto& network : networks) {
        if (known.insert(network.subnetCIDR).second) {
            subnets.push_back(network.subnetCIDR);
        }
    }
    return subnets;
}

/// The user's list, which leaves the store; none if the user has none.
std::vector<FirewallNetworkPolicy> takeList(PolicyStore& store, const std::string& user) {
    const auto entry = store.owners.find(user);
    return entry == store.owners.end() ? std::vector<FirewallNetworkPolicy>()
                                       : std::exchange(entry->second.policies, {});
}

/// Makes the list the user's; returns the subnets whose states have to be killed for that.
std::vector<std::string> replaceList(
    PolicyStore& store,
    const std::string& user,
    std::vector<FirewallNetworkPolicy> list,
    bool callerIsConsoleUser) {
    const auto previous = NetworkFirewall::setPolicies(
        store, user, std::move(list), support::ReferenceDate::now(), callerIsConsoleUser);
    const auto entry = store.owners.find(user);
    if (entry == store.owners.end() ||
        NetworkFirewall::samePolicies(previous, entry->second.policies)) {
        return {};
    }
    return subnetsOf(entry->second.policies);
}

/// Kills the states of connections with those of the subnets that are enforced. Otherwise pf would
/// go on passing connections that an older list allowed.
void resetStates(
    std::span<const FirewallNetworkPolicy> enforceable, std::span<const std::string> subnets) {
    if (subnets.empty()) {
        return;
    }
    std::unordered_set<std::string_view> enforced;
    for (const auto& network : enforceable) {
        enforced.insert(network.subnetCIDR);
    }
    for (const auto& subnet : subnets) {
        if (enforced.contains(subnet)) {
            killStates(subnet);
        }
    }
}

/// Writes and loads the ruleset for these networks; returns the summary for all users. Throws
/// `HelperError` or `FileError`, and then leaves the anchor as it was.
REQUIRES(firewallLock())
std::string loadAnchor(const Review& all, std::span<const std::string> resetSubnets) {
    support::makeFolders(appSupportDirectory);
    const auto path = rulesetPath();
    support::writeFileAtomically(
        path, NetworkFirewall::anchorText(all.enforceable, std::chrono::system_clock::now()), 0644);
    removeLegacyAnchor();
    loadRulesetFile(path);
    enablePf();
    resetStates(all.enforceable, resetSubnets);

    auto summary = NetworkFirewall::summaryForAllUsers(all);
    helperLog("Applied firewall. " + summary);
    return summary;
}

/// Best effort: the anchor is empty already, and that is what the user asked for.
void removeIfPossible(const std::string& path) {
    try {
        support::removeFile(path);
    } catch (const FileError&) {
        // The removal has succeeded without this.
    }
}

REQUIRES(firewallLock()) void reapply() {
    const auto storeLock = lockStore();
    if (!storeLock) {
        // There is no store. If another process makes one from here on, it also brings it into
        // force.
        return;
    }
    auto data = support::readFile(storePath());
    if (!data) {
        return;
    }
    auto store = NetworkFirewall::decodeStore(*data);
    data.reset();  // as large as all that follows
    if (!store) {
        helperLog("Persisted firewall policy could not be decoded; leaving pf alone.");
        return;
    }

    const auto all = reviewAll(*std::move(store), NetworkFirewall::hostAddresses());
    const auto summary = loadAnchor(all, {});
    helperLog("Boot re-apply: " + summary);
    if (!all.refused.empty()) {
        std::string leftOut;
        for (const auto& line : NetworkFirewall::linesOf(all.refused)) {
            leftOut += (leftOut.empty() ? "" : " | ") + line;
        }
        helperLog("Boot re-apply left out: " + leftOut);
    }
}

}  // namespace

std::string applyFirewall(
    std::string_view policyData, std::uint32_t uid, bool callerIsConsoleUser) {
    const MutexLock lock(firewallLock());
    auto decoded = NetworkFirewall::decodePolicyData(policyData);

    const auto storeLock = lockStore();
    const auto hosts = NetworkFirewall::hostAddresses();
    auto own = NetworkFirewall::review(std::move(decoded), hosts);
    auto [store, isUnreadable] = loadStore();
    // The list is in the store alone until that has been saved; it can be large.
    const auto resetSubnets =
        replaceList(store, std::to_string(uid), std::move(own.enforceable), callerIsConsoleUser);
    loadAnchor(reviewAll(store, hosts), resetSubnets);
    if (isUnreadable) {
        keepUnreadableStore();
    }
    saveStore(store);

    own.enforceable = takeList(store, std::to_string(uid));
    auto summary =
        NetworkFirewall::summaryForCaller(own, NetworkFirewall::otherUsersNetworkCount(store, uid));
    if (!own.refused.empty()) {
        throw HelperError::networksRefused(summary, NetworkFirewall::linesOf(own.refused));
    }
    return summary;
}

void removeFirewall(std::uint32_t uid, bool callerIsConsoleUser) {
    const MutexLock lock(firewallLock());
    const auto storeLock = lockStore();
    const auto user = std::to_string(uid);
    auto [store, isUnreadable] = loadStore();
    NetworkFirewall::setPolicies(
        store, user, {}, support::ReferenceDate::now(), callerIsConsoleUser);

    if (!store.owners.empty()) {
        loadAnchor(reviewAll(store, NetworkFirewall::hostAddresses()), {});
        saveStore(store);
        helperLog("Removed uid " + user + "'s firewall policies; other users' stay in force.");
        return;
    }
    removeLegacyAnchor();
    flushAnchor();
    if (isUnreadable) {
        keepUnreadableStore();
    }
    removeIfPossible(storePath());
    removeIfPossible(rulesetPath());
    helperLog("Removed firewall enforcement.");
}

void reapplyAtBoot() noexcept {
    try {
        const MutexLock lock(firewallLock());
        try {
            reapply();
        } catch (const std::exception& error) {
            helperLog(std::string("Boot re-apply failed: ").append(support::descriptionOf(error)));
        }
    } catch (...) {
        // Not even the log has room for it.
    }
}

}  // namespace tarnvale::HelperFirewall
