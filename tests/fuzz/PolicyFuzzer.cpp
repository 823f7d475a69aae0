// SPDX-License-Identifier: MIT
//
// Texts as they may stand in a firewall record: a name, a subnet, a gateway, a remote and ports,
// one after the other, each ended by a zero byte. Whatever they hold, what they mean in a ruleset
// is canonical, and every line of the ruleset is a comment or a rule.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "firewall/policy/Addresses.h"
#include "firewall/policy/AnchorText.h"
#include "firewall/policy/Problems.h"
#include "firewall/policy/Review.h"
#include "support/Text.h"
#include "tests/fuzz/Require.h"
#include "tests/support/RulesetGrammar.h"

namespace tarnvale::NetworkFirewall {

namespace {

using test::require;

/// Reading a canonical form again does not change it.
void checkForms(const std::string& text) {
    if (const auto subnet = canonicalSubnet(text)) {
        require(canonicalSubnet(*subnet) == subnet && test::isPfAddress(*subnet));
    }
    if (const auto remote = normalizedRemote(text)) {
        require(normalizedRemote(*remote) == remote && test::isPfAddress(*remote));
    }
    if (const auto ports = normalizedPorts(text)) {
        require(normalizedPorts(*ports) == ports && test::isPfPorts(*ports));
    }
    if (const auto address = parseIPv4(text)) {
        require(parseIPv4(dottedQuad(*address)) == address);
    }
    require(support::isValidUtf8(support::repairedUtf8(text)));
}

std::vector<FirewallRule> rulesOfEveryKind(
    const std::string& remoteCIDR, const std::string& ports) {
    std::vector<FirewallRule> rules;
    for (const auto direction : FirewallRule::allDirections) {
        for (const auto action : FirewallRule::allActions) {
            for (const auto proto : FirewallRule::allProtos) {
                rules.push_back(
                    {.id = {},
                     .enabled = true,
                     .direction = direction,
                     .action = action,
                     .proto = proto,
                     .remoteCIDR = remoteCIDR,
                     .ports = ports});
            }
        }
    }
    return rules;
}

void check(const std::array<std::string, 5>& texts) {
    for (const std::string& text : texts) {
        checkForms(text);
    }

    FirewallNetworkPolicy network;
    network.name = texts[0];
    network.subnetCIDR = texts[1];
    network.gatewayIPv4 = texts[2];
    network.dnsProxyEnabled = true;
    network.policy.enabled = true;
    network.policy.rules = rulesOfEveryKind(texts[3], texts[4]);
    for (const FirewallRule& rule : network.policy.rules) {
        require(ruleProblem(rule).has_value() == ruleLines(rule, "192.168.64.0/24").empty());
    }

    const std::string direct = anchorText(std::vector{network}, {});
    const std::string reviewed = anchorText(review({network}, {}).enforceable, {});
    for (const std::string& text : {direct, reviewed}) {
        for (const std::string_view line : support::split(text, '\n')) {
            require(test::isRulesetLine(std::string(line)));
        }
    }
}

}  // namespace

}  // namespace tarnvale::NetworkFirewall

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view all(reinterpret_cast<const char*>(data), size);
    std::array<std::string, 5> texts;
    std::size_t next = 0;
    for (const std::string_view text : tarnvale::support::split(all, '\0')) {
        if (next < texts.size()) {
            texts.at(next++) = text;
        }
    }
    tarnvale::NetworkFirewall::check(texts);
    return 0;
}
