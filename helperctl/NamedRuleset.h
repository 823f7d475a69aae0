// SPDX-License-Identifier: MIT
//
// A ruleset with what people call its parts: the names of networks, the texts of lines, where a
// rule stands in the file.

#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "firewall/analysis/Enforced.h"
#include "firewall/analysis/Verdict.h"
#include "helperctl/Explanation.h"
#include "platform/HostAddresses.h"

namespace tarnvale::helperctl {

class NamedRuleset {
public:
    /// What an applied file comes to. Throws `HelperFirewall::HelperError` for data that is not a
    /// policy.
    static NamedRuleset ofFile(
        std::string_view policyData, std::span<const NetworkFirewall::HostAddress> hosts);

    /// What an applied list comes to.
    static NamedRuleset ofList(
        std::vector<NetworkFirewall::FirewallNetworkPolicy> list,
        std::span<const NetworkFirewall::HostAddress> hosts);

    const FirewallAnalysis::Ruleset& ruleset() const { return list_.ruleset; }
    const FirewallAnalysis::EnforcedList& list() const { return list_; }

    /// The name of a network of the ruleset.
    std::string networkName(std::size_t network) const;

    /// Its lines, and what gave them.
    std::vector<ExplainedLine> explainedLines(std::size_t network) const;

    /// Its lines as the ruleset has them.
    std::vector<std::string> lineTexts(std::size_t network) const;

    /// What gave a line of it: "rule 2 (deny 10.0.0.0/8)".
    std::string wordsOf(std::size_t network, std::size_t line) const;

    /// The rule that gave the line; nothing if none did, or if it isn't known.
    const NetworkFirewall::FirewallRule* ruleOf(std::size_t network, std::size_t line) const;

private:
    FirewallAnalysis::EnforcedList list_;
};

}  // namespace tarnvale::helperctl
