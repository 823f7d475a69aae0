// SPDX-License-Identifier: MIT
//
// Rulesets of any bytes. Every rule that is read survives packing, a listing is read as the rules
// that it lists, and the plan of a packet's way finds what a walk over the lines finds.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "pfctl/kernel/Dispatch.h"
#include "pfctl/kernel/UserData.h"
#include "pfctl/language/CountedRule.h"
#include "pfctl/language/Listing.h"
#include "pfctl/language/Rule.h"
#include "pfctl/language/RulesetParser.h"

namespace tarnvale::pfctl {
namespace {

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

void checkPlan(
    const std::vector<Rule>& rules,
    const DirectionPlan& plan,
    Direction direction,
    const Flow& flow) {
    const auto first = std::ranges::find_if(rules, [&](const Rule& rule) {
        return rule.direction == direction && matches(rule, flow);
    });
    const auto found = decidingRule(rules, plan, direction, flow);
    require(found.has_value() == (first != rules.end()));
    require(!found || *found == static_cast<std::uint32_t>(first - rules.begin()));
}

void checkListing(const std::vector<Rule>& rules) {
    std::string listing;
    for (const Rule& rule : rules) {
        appendCountedRule(listing, {.rule = rule}, 0, {});
    }
    const auto listed = parseRuleset(listing);
    require(listed.mistakes.empty() && listed.rules == rules);
}

void check(std::string_view text) {
    const auto ruleset = parseRuleset(text);
    require(ruleset.mistakes.size() <= maxMistakes);
    if (!ruleset.mistakes.empty()) {
        return;
    }
    checkListing(ruleset.rules);
    const Dispatch dispatch = planDispatch(ruleset.rules);
    for (const Rule& rule : ruleset.rules) {
        const auto& plan = rule.direction == Direction::in ? dispatch.in : dispatch.out;
        require(unpackedRule(packed(rule)) == rule);
        // The first and the last addresses of a rule are where a plan could err.
        for (const bool last : {false, true}) {
            const auto end = [last](const Endpoint& side) {
                return last ? side.subnet.last() : side.subnet.address;
            };
            const Flow flow{
                .protocol = static_cast<std::uint8_t>(rule.protocol),
                .source = end(rule.from),
                .destination = end(rule.to),
                .sourcePort = rule.from.ports.first,
                .destinationPort = rule.to.ports.last};
            checkPlan(ruleset.rules, plan, rule.direction, flow);
        }
    }
}

}  // namespace
}  // namespace tarnvale::pfctl

// NOLINTNEXTLINE(readability-identifier-naming): the name that libFuzzer calls
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    tarnvale::pfctl::check({reinterpret_cast<const char*>(data), size});
    return 0;
}
