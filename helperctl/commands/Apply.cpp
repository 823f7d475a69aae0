// SPDX-License-Identifier: MIT

#include "helperctl/commands/Apply.h"

#include <optional>
#include <string>
#include <utility>

#include <unistd.h>

#include "firewall/policy/HelperError.h"
#include "helperctl/PolicyFile.h"
#include "helperctl/Preview.h"
#include "platform/HostAddresses.h"

namespace tarnvale::helperctl {
namespace {

/// What a review finds in the file. Nothing if it can't be read: the helper says why.
Answer reviewed(const std::string& policyData) {
    try {
        return preview(policyData, NetworkFirewall::hostAddresses(), ::geteuid()).answer;
    } catch (const HelperFirewall::HelperError&) {
        return {};
    }
}

template <class List>
std::optional<List> unlessEmpty(std::optional<List> list) {
    return list && !list->empty() ? std::move(list) : std::nullopt;
}

/// Whether the helper applied the file but for some networks.
bool isPartlyApplied(const std::string& error) {
    return error.find("\nNot enforced:\n") != std::string::npos;
}

}  // namespace

Outcome apply(const Arguments& arguments, const Connect& connect) {
    const auto policyData = readPolicyFile(arguments.file);
    auto findings = reviewed(policyData);
    auto refused = unlessEmpty(std::move(findings.refused));
    auto skippedRules = unlessEmpty(std::move(findings.skippedRules));
    auto droppedClaims = unlessEmpty(std::move(findings.droppedClaims));

    if (arguments.strict && (refused || skippedRules || droppedClaims)) {
        auto outcome = failure("Changed nothing: not all of the file would be enforced.");
        outcome.answer.refused = std::move(refused);
        outcome.answer.skippedRules = std::move(skippedRules);
        outcome.answer.droppedClaims = std::move(droppedClaims);
        return outcome;
    }

    auto reply = connect()->applyFirewallWithPolicyData(policyData);
    auto outcome = reply.error ? failure(*std::move(reply.error)) : Outcome{};
    auto& answer = outcome.answer;
    if (!answer.error) {
        answer.summary = std::move(reply.result);
    }
    if (!answer.error || isPartlyApplied(*answer.error)) {
        answer.skippedRules = std::move(skippedRules);
        answer.droppedClaims = std::move(droppedClaims);
    }
    return outcome;
}

}  // namespace tarnvale::helperctl
