// SPDX-License-Identifier: MIT

#include "helperctl/Preview.h"

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "firewall/policy/AnchorText.h"
#include "firewall/policy/PolicyJson.h"
#include "firewall/policy/PolicyStore.h"
#include "firewall/policy/Review.h"
#include "firewall/policy/Summary.h"

namespace tarnvale::helperctl {
namespace {

using NetworkFirewall::Note;

std::vector<RefusedNetwork> refusedNetworks(std::span<const Note> notes) {
    std::vector<RefusedNetwork> networks;
    networks.reserve(notes.size());
    for (const auto& note : notes) {
        networks.push_back(
            {.networkID = note.networkID, .name = *note.networkName, .problem = note.problem});
    }
    return networks;
}

/// Names each network once: a network with a long name may have many faulty rules.
std::vector<SkippedRules> skippedRules(std::span<const Note> notes) {
    std::vector<SkippedRules> networks;
    const std::string* lastName = nullptr;
    for (const auto& note : notes) {
        if (note.networkName.get() != lastName) {
            lastName = note.networkName.get();
            networks.push_back({.networkID = note.networkID, .name = *lastName, .rules = {}});
        }
        networks.back().rules.push_back(
            {.number = static_cast<std::int64_t>(note.ruleNumber), .problem = note.problem});
    }
    return networks;
}

}  // namespace

Outcome preview(
    std::string_view policyData, std::span<const NetworkFirewall::HostAddress> hosts, uid_t uid) {
    auto own = NetworkFirewall::review(NetworkFirewall::decodePolicyData(policyData), hosts);
    Outcome outcome{.status = own.refused.empty() ? done : refusedOrFailed, .answer = {}};
    auto& answer = outcome.answer;
    answer.summary = NetworkFirewall::summaryForCaller(own, 0);
    answer.refused = refusedNetworks(own.refused);
    answer.skippedRules = skippedRules(own.skippedRules);

    NetworkFirewall::PolicyStore store;
    store.owners[std::to_string(uid)].policies = std::move(own.enforceable);
    auto merged = NetworkFirewall::mergedPolicies(std::move(store));
    auto& claims = answer.droppedClaims.emplace();
    for (const auto& claim : merged.dropped) {
        claims.push_back(NetworkFirewall::claimMessage(claim.owner, claim.policy));
    }
    const auto all = NetworkFirewall::review(std::move(merged.policies), hosts);
    answer.ruleset = NetworkFirewall::anchorText(all.enforceable, std::chrono::system_clock::now());
    return outcome;
}

}  // namespace tarnvale::helperctl
