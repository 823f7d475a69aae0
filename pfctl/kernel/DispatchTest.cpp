// SPDX-License-Identifier: MIT

#include "pfctl/kernel/Dispatch.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "pfctl/language/RulesetParser.h"

namespace tarnvale::pfctl {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

std::vector<Rule> rulesOf(std::string_view text) {
    auto ruleset = parseRuleset(text);
    EXPECT_THAT(ruleset.mistakes, IsEmpty());
    return ruleset.rules;
}

AddressMap mapAt(const DirectionPlan& plan, std::size_t step) {
    return std::get<AddressMap>(plan.steps.at(step));
}

/// The first rule of the direction that matches: what every dispatch must come to.
std::optional<std::uint32_t> firstMatch(
    const std::vector<Rule>& rules, Direction direction, const Flow& flow) {
    for (std::uint32_t line = 0; line < rules.size(); ++line) {
        if (rules[line].direction == direction && matches(rules[line], flow)) {
            return line;
        }
    }
    return std::nullopt;
}

std::size_t blocksOf(const DirectionPlan& plan) {
    std::size_t blocks = 0;
    for (const Step& step : plan.steps) {
        const auto* map = std::get_if<AddressMap>(&step);
        blocks += map != nullptr ? map->blocks.size() : 1;
    }
    return blocks;
}

TEST(DispatchTest, HasNoStepsWithoutRules) {
    const auto dispatch = planDispatch({});

    EXPECT_THAT(dispatch.in.steps, IsEmpty());
    EXPECT_THAT(dispatch.out.steps, IsEmpty());
}

TEST(DispatchTest, GivesEachNetworkOneBlockPerDirection) {
    const auto rules = rulesOf(
        "pass in quick proto udp from 10.0.0.0/24 port 68 to any port 67 keep state\n"
        "pass out quick proto udp from any port 67 to 10.0.0.0/24 port 68\n"
        "pass in quick from 10.0.0.0/24 to any keep state\n"
        "block drop out quick from any to 10.0.0.0/24\n"
        "block drop in quick from 10.0.1.0/24 to any\n"
        "block drop out quick from any to 10.0.1.0/24\n");
    const auto dispatch = planDispatch(rules);

    ASSERT_THAT(dispatch.in.steps, SizeIs(1));
    EXPECT_THAT(dispatch.in.lines, ElementsAre(0, 2, 4));
    const auto map = mapAt(dispatch.in, 0);
    EXPECT_THAT(map.blocks, ElementsAre(Block{.begin = 0, .end = 2}, Block{.begin = 2, .end = 3}));
    EXPECT_THAT(
        map.intervals,
        ElementsAre(
            Interval{.first = 0x0A000000, .last = 0x0A0000FF, .path = 0},
            Interval{.first = 0x0A000100, .last = 0x0A0001FF, .path = 1}));
    EXPECT_THAT(map.paths, ElementsAre(ElementsAre(0), ElementsAre(1)));
    EXPECT_THAT(dispatch.out.lines, ElementsAre(1, 3, 5));
}

TEST(DispatchTest, SplitsANetworkAroundAnotherInsideIt) {
    const auto rules = rulesOf(
        "block drop in quick from 10.0.0.0/20 to any\n"
        "pass in quick from 10.0.5.0/24 to any\n"
        "pass in quick from 10.0.15.0/24 to any\n");
    const auto map = mapAt(planDispatch(rules).in, 0);

    EXPECT_THAT(
        map.intervals,
        ElementsAre(
            Interval{.first = 0x0A000000, .last = 0x0A0004FF, .path = 0},
            Interval{.first = 0x0A000500, .last = 0x0A0005FF, .path = 1},
            Interval{.first = 0x0A000600, .last = 0x0A000EFF, .path = 0},
            Interval{.first = 0x0A000F00, .last = 0x0A000FFF, .path = 2}));
    EXPECT_THAT(map.paths, ElementsAre(ElementsAre(0), ElementsAre(0, 1), ElementsAre(0, 2)));
}

TEST(DispatchTest, GoesThroughTheBlocksOfNestedNetworksInTheOrderOfTheLines) {
    const auto rules = rulesOf(
        "pass in quick proto tcp from 10.0.5.0/24 to any\n"
        "pass in quick proto udp from 10.0.0.0/8 to any\n"
        "block drop in quick from 10.0.0.0/20 to any\n");
    const auto map = mapAt(planDispatch(rules).in, 0);

    EXPECT_THAT(map.paths, ElementsAre(ElementsAre(0, 1, 2), ElementsAre(1), ElementsAre(1, 2)));
}

TEST(DispatchTest, ReachesBothEndsOfTheAddressSpace) {
    const auto rules = rulesOf(
        "block drop in quick from 0.0.0.0/1 to any\n"
        "block drop in quick from 128.0.0.0/1 to any\n"
        "block drop in quick from 255.255.255.255/32 to any\n");
    const auto map = mapAt(planDispatch(rules).in, 0);

    EXPECT_THAT(
        map.intervals,
        ElementsAre(
            Interval{.first = 0, .last = 0x7FFFFFFF, .path = 0},
            Interval{.first = 0x80000000, .last = 0xFFFFFFFE, .path = 1},
            Interval{.first = 0xFFFFFFFF, .last = 0xFFFFFFFF, .path = 2}));
}

TEST(DispatchTest, KeepsRulesForEveryAddressBetweenTheMaps) {
    const auto rules = rulesOf(
        "block drop in quick from 10.0.0.0/24 to any\n"
        "pass in quick from any to 1.0.0.0/8\n"
        "pass in quick from 0.0.0.0/0 to 2.0.0.0/8\n"
        "block drop in quick from 10.0.0.0/24 to any\n");
    const auto plan = planDispatch(rules).in;

    ASSERT_THAT(plan.steps, SizeIs(3));
    EXPECT_THAT(mapAt(plan, 0).blocks, ElementsAre(Block{.begin = 0, .end = 1}));
    EXPECT_EQ(std::get<Block>(plan.steps[1]), (Block{.begin = 1, .end = 3}));
    EXPECT_THAT(mapAt(plan, 2).blocks, ElementsAre(Block{.begin = 3, .end = 4}));
}

TEST(DispatchTest, GathersTheLinesOfNetworksThatAlternate) {
    std::string text;
    for (int round = 0; round < 1000; ++round) {
        text += "pass in quick from 10.0.0.0/24 to any\npass in quick from 10.0.1.0/24 to any\n";
    }
    const auto plan = planDispatch(rulesOf(text)).in;

    EXPECT_THAT(plan.steps, SizeIs(1));
    EXPECT_EQ(blocksOf(plan), 2U);
}

TEST(DispatchTest, StartsANewMapWhereOverlappingNetworksAlternate) {
    const auto rules = rulesOf(
        "pass in quick proto tcp from 10.0.0.0/24 to any\n"
        "block drop in quick proto udp from 10.0.0.0/20 to any\n"
        "pass in quick from 10.0.0.0/24 to any\n");

    EXPECT_THAT(planDispatch(rules).in.steps, SizeIs(2));
}

TEST(DispatchTest, WritesNoRuleTwiceHoweverNetworksOverlap) {
    std::string text;
    for (int number = 0; number < 4096; ++number) {
        const std::string subnet =
            "10." + std::to_string(number / 256) + "." + std::to_string(number % 256) + ".0/24";
        text += "block drop in quick from 10.0.0.0/8 to 1.0.0.0/8\n";
        text += "pass in quick from " + subnet + " to any\n";
    }
    const auto rules = rulesOf(text);
    const auto plan = planDispatch(rules).in;

    EXPECT_EQ(plan.lines.size(), rules.size());
    EXPECT_LE(blocksOf(plan), rules.size());
    std::size_t hops = 0;
    for (const Step& step : plan.steps) {
        for (const auto& path : std::get<AddressMap>(step).paths) {
            hops += path.size();
        }
    }
    EXPECT_LE(hops, 2 * rules.size());
}

TEST(DispatchTest, MatchesByProtocolAddressesAndPorts) {
    const Rule rule =
        rulesOf("pass in quick proto udp from 10.0.0.0/24 port 68 to 1.2.3.0/24 port 60:70\n")
            .at(0);
    const Flow flow{
        .protocol = 17,
        .source = 0x0A000005,
        .destination = 0x01020304,
        .sourcePort = 68,
        .destinationPort = 67};
    const auto changed = [&flow](auto change) {
        Flow copy = flow;
        change(copy);
        return copy;
    };

    EXPECT_TRUE(matches(rule, flow));
    EXPECT_FALSE(matches(rule, changed([](Flow& f) { f.protocol = 6; })));
    EXPECT_FALSE(matches(rule, changed([](Flow& f) { f.source = 0x0A000100; })));
    EXPECT_FALSE(matches(rule, changed([](Flow& f) { f.destination = 0x01020404; })));
    EXPECT_FALSE(matches(rule, changed([](Flow& f) { f.sourcePort = 67; })));
    EXPECT_FALSE(matches(rule, changed([](Flow& f) { f.destinationPort = 59; })));
    EXPECT_FALSE(matches(rule, changed([](Flow& f) { f.destinationPort = 71; })));
}

/// Rulesets over few addresses, so that subnets meet, nest and come back.
class RandomRulesets {
public:
    explicit RandomRulesets(unsigned seed) : random_(seed) {}

    std::uint32_t below(std::uint32_t bound) {
        return std::uniform_int_distribution<std::uint32_t>(0, bound - 1)(random_);
    }

    std::uint32_t address() { return 0x0A000000 | below(4) << 14U | below(4) << 6U | below(3); }

    Subnet subnet() {
        if (below(5) == 0) {
            return {};
        }
        Subnet subnet{.address = 0, .prefixLength = static_cast<std::uint8_t>(16 + below(17))};
        subnet.address = address() & subnet.mask();
        return subnet;
    }

    Rule rule() {
        Rule rule;
        rule.action = below(2) == 0 ? Action::pass : Action::blockDrop;
        rule.direction = below(2) == 0 ? Direction::in : Direction::out;
        rule.protocol = below(2) == 0 ? Protocol::any : Protocol::udp;
        rule.from.subnet = subnet();
        rule.to.subnet = subnet();
        return rule;
    }

    Flow flow() {
        return {
            .protocol = static_cast<std::uint8_t>(below(2) == 0 ? 6 : 17),
            .source = address(),
            .destination = address(),
            .sourcePort = 0,
            .destinationPort = 0};
    }

private:
    std::mt19937 random_;
};

TEST(DispatchTest, FindsTheFirstMatchInAnyRuleset) {
    RandomRulesets random(20250314);
    for (int ruleset = 0; ruleset < 300; ++ruleset) {
        std::vector<Rule> rules(1 + random.below(40));
        for (Rule& rule : rules) {
            rule = random.rule();
        }
        const auto dispatch = planDispatch(rules);
        for (int packet = 0; packet < 100; ++packet) {
            const Flow flow = random.flow();
            ASSERT_EQ(
                decidingRule(rules, dispatch.in, Direction::in, flow),
                firstMatch(rules, Direction::in, flow))
                << "ruleset " << ruleset;
            ASSERT_EQ(
                decidingRule(rules, dispatch.out, Direction::out, flow),
                firstMatch(rules, Direction::out, flow))
                << "ruleset " << ruleset;
        }
    }
}

}  // namespace
}  // namespace tarnvale::pfctl
