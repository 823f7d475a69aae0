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
#include "helperctl/Findings.h"

namespace tarnvale::helperctl {
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
    answer.droppedClaims = droppedClaims(merged.dropped);
    const auto all = NetworkFirewall::review(std::move(merged.policies), hosts);
    answer.ruleset = NetworkFirewall::anchorText(all.enforceable, std::chrono::system_clock::now());
    return outcome;
}

}  // namespace tarnvale::helperctl
