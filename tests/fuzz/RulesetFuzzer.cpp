// SPDX-License-Identifier: MIT
//
// Rulesets of any bytes. Every rule that is read survives packing, a listing is read as the rules
// that it lists, and the plan of a packet's way finds what a walk over the lines finds. Written out
// in the helper's words, the rules are read as the same, and another reader of those words lets the
// same packets pass.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "pfctl/kernel/Dispatch.h"
#include "pfctl/kernel/UserData.h"
#include "pfctl/language/CountedRule.h"
#include "pfctl/language/Listing.h"
#include "pfctl/language/Rule.h"
#include "pfctl/language/RulesetParser.h"
#include "support/Text.h"
#include "tests/fuzz/Require.h"
#include "tests/support/PacketFilterModel.h"
#include "tests/support/RulesetGrammar.h"

namespace tarnvale::pfctl {
namespace {

using test::require;

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

std::string written(const Endpoint& side, bool asSubnet) {
    std::string text = "any";
    if (!side.subnet.isEverything() || asSubnet) {
        text.clear();
        for (const unsigned shift : {24U, 16U, 8U, 0U}) {
            text += std::to_string(side.subnet.address >> shift & 0xFFU);
            text += shift > 0 ? "." : "/";
        }
        text += std::to_string(side.subnet.prefixLength);
    }
    if (side.ports.kind != Ports::Kind::all) {
        text += " port " + std::to_string(side.ports.first);
    }
    if (side.ports.kind == Ports::Kind::range) {
        text += ":" + std::to_string(side.ports.last);
    }
    return text;
}

/// The rule's line as the helper would write it.
std::string written(const Rule& rule) {
    const bool asSubnet =
        rule.namesASubnet && rule.from.subnet.isEverything() && rule.to.subnet.isEverything();
    const bool passes = rule.action == Action::pass;
    std::string text = passes ? "pass" : "block drop";
    text += rule.direction == Direction::in ? " in quick" : " out quick";
    text += rule.protocol == Protocol::tcp    ? " proto tcp"
            : rule.protocol == Protocol::udp  ? " proto udp"
            : rule.protocol == Protocol::icmp ? " proto icmp"
                                              : "";
    text += " from " + written(rule.from, asSubnet) + " to " + written(rule.to, asSubnet);
    return text + (passes ? " keep state\n" : "\n");
}

/// The model as another reader of the text.
test::PacketFilterModel modelOf(const std::string& text) {
    test::PacketFilterModel model;
    model.load(text);
    return model;
}

void checkVerdict(
    const std::vector<Rule>& rules,
    const DirectionPlan& plan,
    const std::vector<test::PacketFilterModel>& models,
    Direction direction,
    Flow flow) {
    const auto protocol = flow.protocol == 6   ? test::Protocol::tcp
                          : flow.protocol == 1 ? test::Protocol::ping
                                               : test::Protocol::udp;
    flow.protocol = protocol == test::Protocol::udp ? 17 : flow.protocol;
    const auto found = decidingRule(rules, plan, direction, flow);
    const bool passes = !found || rules[*found].action == Action::pass;
    for (test::PacketFilterModel model : models) {
        require(
            passes == model.passes(
                          direction == Direction::in ? test::Direction::in : test::Direction::out,
                          {.protocol = protocol,
                           .source = flow.source,
                           .destination = flow.destination,
                           .sourcePort = flow.sourcePort,
                           .destinationPort = flow.destinationPort}));
    }
}

bool isInHelpersWords(std::string_view text) {
    return std::ranges::all_of(support::split(text, '\n'), [](std::string_view line) {
        return test::isRulesetLine(std::string(line));
    });
}

void check(std::string_view text) {
    const auto ruleset = parseRuleset(text);
    require(ruleset.mistakes.size() <= maxMistakes);
    const bool isHelpers = text.ends_with('\n') && isInHelpersWords(text);
    require(!isHelpers || ruleset.mistakes.empty());
    if (!ruleset.mistakes.empty()) {
        return;
    }
    checkListing(ruleset.rules);
    std::string again;
    for (const Rule& rule : ruleset.rules) {
        again += written(rule);
    }
    require(parseRuleset(again).mistakes.empty() && parseRuleset(again).rules == ruleset.rules);
    std::vector<test::PacketFilterModel> models{modelOf(again)};
    if (isHelpers) {
        models.push_back(modelOf(std::string(text)));
    }
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
            checkVerdict(ruleset.rules, plan, models, rule.direction, flow);
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
