// SPDX-License-Identifier: MIT
//
// What a line has passed goes on in both directions until it ends or is killed, whatever is loaded
// meanwhile; what no line has passed has no such right.

#include <array>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/packets/PacketTest.h"

namespace tarnvale::test {
namespace {

constexpr std::array allProtocols{Protocol::tcp, Protocol::udp, Protocol::ping};

/// Kills what the helper kills when a network has changed.
std::vector<Finished> killStatesOf(const std::string& subnet) {
    return {pfctl({"-k", subnet}), pfctl({"-k", "0.0.0.0/0", "-k", subnet})};
}

class StatesTest : public PacketTest {
protected:
    /// One established flow of each protocol, or an exception.
    std::vector<Question> establishedFlows(const Host& from, const Host& to) {
        std::vector<Question> flows;
        flows.reserve(allProtocols.size());
        for (const Protocol protocol : allProtocols) {
            flows.push_back(lab->established(
                {.protocol = protocol,
                 .from = from,
                 .to = to,
                 .port = 443,
                 .fromPort = lab->unusedPort()}));
        }
        return flows;
    }
};

TEST_F(StatesTest, LetRepliesBackThroughADenyDefault) {
    enforce(network(subnet64, Default::allow, Default::deny));

    for (Question& flow : establishedFlows(vm1, outside)) {
        EXPECT_TRUE(lab->stillPasses(flow));
    }
    for (const Protocol protocol : allProtocols) {
        EXPECT_TRUE(lab->drops({.protocol = protocol, .from = outside, .to = vm1, .port = 443}));
    }
}

TEST_F(StatesTest, AreNeededOnBothSidesBetweenTwoNetworks) {
    const std::string subnet65 = "192.168.65.0/24";
    const Exchange exchange{.protocol = Protocol::udp, .from = vm1, .to = vm3, .port = 443};

    enforce(
        network(subnet64, Default::allow, Default::deny) +
        network(subnet65, Default::deny, Default::allow));
    EXPECT_TRUE(lab->passes(exchange));

    enforce(
        network(subnet64, Default::allow, Default::deny) +
        network(subnet65, Default::deny, Default::deny));
    EXPECT_TRUE(lab->drops(exchange));

    enforce(
        network(subnet64, Default::deny, Default::deny) +
        network(subnet65, Default::deny, Default::allow));
    EXPECT_TRUE(lab->drops(exchange));
}

TEST_F(StatesTest, SurviveALoadThatDeniesTheirFlow) {
    enforce(network(subnet64, Default::allow, Default::allow));
    std::vector<Question> outbound = establishedFlows(vm1, outside);
    std::vector<Question> inbound = establishedFlows(outside, vm1);

    enforce(network(subnet64, Default::deny, Default::deny));

    for (std::size_t i = 0; i < allProtocols.size(); ++i) {
        const Protocol protocol = allProtocols.at(i);
        EXPECT_TRUE(lab->stillPasses(outbound.at(i))) << rawValue(protocol);
        EXPECT_TRUE(lab->stillPasses(inbound.at(i))) << rawValue(protocol);
        EXPECT_TRUE(lab->drops({.protocol = protocol, .from = vm1, .to = outside, .port = 443}));
        EXPECT_TRUE(lab->drops({.protocol = protocol, .from = outside, .to = vm1, .port = 443}));
    }
}

TEST_F(StatesTest, DieWhenTheyAreKilled) {
    enforce(network(subnet64, Default::allow, Default::allow));
    std::vector<Question> outbound = establishedFlows(vm1, outside);
    std::vector<Question> inbound = establishedFlows(outside, vm1);
    enforce(network(subnet64, Default::deny, Default::deny));

    const std::vector<Finished> kills = killStatesOf(subnet64);

    for (std::size_t i = 0; i < allProtocols.size(); ++i) {
        EXPECT_TRUE(lab->nowDrops(outbound.at(i))) << rawValue(allProtocols.at(i));
        EXPECT_TRUE(lab->nowDrops(inbound.at(i))) << rawValue(allProtocols.at(i));
    }
    EXPECT_EQ(kills[0].status, 0);
    EXPECT_EQ(kills[0].error, "killed 3 states from 1 sources and 0 destinations\n");
    EXPECT_EQ(kills[1].status, 0);
    EXPECT_EQ(kills[1].error, "killed 3 states from 1 sources and 1 destinations\n");
}

TEST_F(StatesTest, AreKilledByWhoBeganThem) {
    enforce(network(subnet64, Default::allow, Default::allow));
    Question outbound = lab->established({.from = vm1, .to = outside, .port = 443});
    Question inbound = lab->established({.from = outside, .to = vm1, .port = 443});
    enforce(network(subnet64, Default::deny, Default::deny));

    pfctl({"-k", subnet64});
    EXPECT_TRUE(lab->nowDrops(outbound));
    EXPECT_TRUE(lab->stillPasses(inbound));

    pfctl({"-k", "0.0.0.0/0", "-k", subnet64});
    EXPECT_TRUE(lab->nowDrops(inbound));
}

TEST_F(StatesTest, OfOtherNetworksOutliveAKill) {
    const std::string allowed = network(subnet64, Default::allow, Default::allow) +
                                network("192.168.65.0/24", Default::allow, Default::allow);
    const std::string denied = network(subnet64, Default::deny, Default::deny) +
                               network("192.168.65.0/24", Default::deny, Default::deny);
    enforce(allowed);
    std::vector<Question> flows = establishedFlows(vm3, outside);
    enforce(denied);

    killStatesOf(subnet64);

    for (Question& flow : flows) {
        EXPECT_TRUE(lab->stillPasses(flow));
    }
}

TEST_F(StatesTest, AreNotGivenToAKilledConnectionInMidStream) {
    const std::string ruleset = network(subnet64, Default::allow, Default::deny);
    enforce(ruleset);
    std::vector<Question> flows = establishedFlows(vm1, outside);

    killStatesOf(subnet64);

    // All packets of a datagram's or an echo's flow are alike, so the next one makes a new state.
    EXPECT_TRUE(lab->nowDrops(flows.at(0)));
    EXPECT_TRUE(lab->stillPasses(flows.at(1)));
    EXPECT_TRUE(lab->stillPasses(flows.at(2)));
}

TEST_F(StatesTest, AreNotNeededWhereBothDefaultsAllow) {
    enforce(network(subnet64, Default::allow, Default::allow));
    std::vector<Question> flows = establishedFlows(vm1, outside);

    killStatesOf(subnet64);

    for (Question& flow : flows) {
        EXPECT_TRUE(lab->stillPasses(flow));
    }
}

TEST_F(StatesTest, AreNotGivenToConnectionsOlderThanTheRules) {
    std::vector<Question> outbound = establishedFlows(vm1, outside);
    std::vector<Question> inbound = establishedFlows(outside, vm1);

    enforce(network(subnet64, Default::allow, Default::deny));

    EXPECT_TRUE(lab->nowDrops(outbound.at(0)));
    EXPECT_TRUE(lab->stillPasses(outbound.at(1)));
    EXPECT_TRUE(lab->stillPasses(outbound.at(2)));
    for (Question& flow : inbound) {
        EXPECT_TRUE(lab->nowDrops(flow));
    }
}

TEST_F(StatesTest, AreNotNeededByOldConnectionsWhereBothDefaultsAllow) {
    std::vector<Question> outbound = establishedFlows(vm1, outside);
    std::vector<Question> inbound = establishedFlows(outside, vm1);

    enforce(network(subnet64, Default::allow, Default::allow));

    for (std::size_t i = 0; i < allProtocols.size(); ++i) {
        EXPECT_TRUE(lab->stillPasses(outbound.at(i))) << rawValue(allProtocols.at(i));
        EXPECT_TRUE(lab->stillPasses(inbound.at(i))) << rawValue(allProtocols.at(i));
    }
}

TEST_F(StatesTest, LetTheIcmpErrorsOfTheirFlowBack) {
    const Exchange unreachable{
        .protocol = Protocol::udp, .from = vm1, .to = outside, .port = 99, .listened = false};
    const Exchange expired{
        .protocol = Protocol::udp, .from = vm1, .to = vm3, .port = 99, .timeToLive = 1};
    const Exchange unreachableInside{
        .protocol = Protocol::udp, .from = outside, .to = vm1, .port = 99, .listened = false};

    enforce(network(subnet64, Default::allow, Default::deny));
    EXPECT_EQ(
        lab->run(std::array{unreachable, expired}, {true, true}), std::vector(2, Outcome::refused));

    enforce(network(subnet64, Default::deny, Default::allow));
    EXPECT_EQ(lab->run(std::array{unreachableInside}, {true}), std::vector(1, Outcome::refused));
}

TEST_F(StatesTest, AreNotMadeByIcmpErrors) {
    // The machine's "port unreachable" passes by a line of its own, the question by no line.
    enforce(
        "pass in quick proto icmp from 192.168.64.0/24 to any keep state\n"
        "block drop in quick from 192.168.64.0/24 to any\n");
    Question question = lab->ask(
        {.protocol = Protocol::udp, .from = outside, .to = vm1, .port = 99, .listened = false});
    lab->settle({&question, 1}, NetworkLab::answerTimeout);
    ASSERT_EQ(question.outcome(), Outcome::refused);

    // Somebody listens now, but the flow's own packets still have no state to come back by.
    const Exchange listening{.protocol = Protocol::udp, .from = vm2, .to = vm1, .port = 99};
    ASSERT_TRUE(lab->passes(listening));
    EXPECT_TRUE(lab->nowDrops(question));
}

TEST_F(StatesTest, KeepCountingWhatLivesInThem) {
    enforce(network(subnet64, Default::allow, Default::deny));
    const std::vector<Question> flows = establishedFlows(vm1, outside);

    const Finished status = pfctl({"-a", anchor, "-v", "-sr"});

    EXPECT_THAT(
        status.output,
        testing::ContainsRegex(
            "pass in quick inet from 192\\.168\\.64\\.0/24 to any flags S/SA keep "
            "state\n  \\[ Evaluations: [0-9]+ +Packets: 3 +Bytes: [0-9]+ +States: 3 "));
}

}  // namespace
}  // namespace tarnvale::test
