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
#include "helperctl/Session.h"
#include "platform/HostAddresses.h"

namespace tarnvale::helperctl {

class NamedRuleset {
public:
    /// What applying a file results in. Throws `HelperFirewall::HelperError` for data that is not a
    /// policy.
    static NamedRuleset ofFile(
        std::string_view policyData, std::span<const NetworkFirewall::HostAddress> hosts);

    /// What applying a list results in.
    static NamedRuleset ofList(
        std::vector<NetworkFirewall::FirewallNetworkPolicy> list,
        std::span<const NetworkFirewall::HostAddress> hosts);

    /// What a report of the helper's says is in force; nothing where pf is off. The names of
    /// networks and rules are those of the status page. Throws `std::runtime_error` for a report
    /// that doesn't say, or says something else.
    static NamedRuleset ofReport(
        const std::string& report, std::span<const NetworkFirewall::HostAddress> hosts);

    /// The same of what the helper reports now.
    static NamedRuleset inForce(
        const Connect& connect, std::span<const NetworkFirewall::HostAddress> hosts);

    const FirewallAnalysis::Ruleset& ruleset() const { return list_.ruleset; }
    const FirewallAnalysis::EnforcedList& list() const { return list_; }

    /// Whether pf is known to be off.
    bool isOff() const { return isOff_; }

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
    /// A network in force.
    struct LiveNetwork {
        std::string name;
        std::vector<ExplainedLine> lines;
    };

    FirewallAnalysis::EnforcedList list_;
    std::vector<LiveNetwork> live_;  ///< empty for a list
    bool isOff_ = false;
};

}  // namespace tarnvale::helperctl
