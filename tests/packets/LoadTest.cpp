// SPDX-License-Identifier: MIT
//
// When rules begin and cease to hold, and what the listing says of their work.

#include <deque>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/packets/PacketTest.h"
#include "tests/support/Pattern.h"
#include "tests/support/SkipReasons.h"

namespace tarnvale::test {
namespace {

using testing::ElementsAre;
using testing::MatchesRegex;
using testing::Pair;
using testing::StartsWith;

/// The lines of the listing, each with its count of packets.
std::vector<std::pair<std::string, int>> linesWithCounts() {
    static const Pattern form("(pass|block)[^\n]*\n  \\[ Evaluations: \\d+ +Packets: (\\d+) ");
    const std::string listing = pfctl({"-a", anchor, "-v", "-sr"}).output;
    std::vector<std::pair<std::string, int>> lines;
    for (const auto& found : form.findAll(listing)) {
        lines.emplace_back(found[0].substr(0, found[0].find('\n')), std::stoi(found[2]));
    }
    return lines;
}

class LoadTest : public PacketTest {
protected:
    /// Loads the two rulesets in turns while packets come that both drop, and such that both pass.
    void expectNothingThroughWhileLoading(const std::string& one, const std::string& two);
};

TEST_F(LoadTest, EnforcesNothingBeforePfIsEnabled) {
    const Exchange exchange{.from = outside, .to = vm1, .port = 22};

    load(network(subnet64, Default::allow, Default::deny));
    EXPECT_THAT(pfctl({"-si"}).output, StartsWith("Status: Disabled "));
    EXPECT_TRUE(lab->passes(exchange));

    const Finished enabled = pfctl({"-E"});
    EXPECT_THAT(enabled.error, MatchesRegex("pf enabled\nToken : [0-9]+\n"));
    EXPECT_THAT(pfctl({"-si"}).output, StartsWith("Status: Enabled for 0 days 00:00:0"));
    EXPECT_TRUE(lab->drops(exchange));
}

TEST_F(LoadTest, EnforcesAtOnceWhenPfIsEnabledAlready) {
    ASSERT_EQ(pfctl({"-E"}).status, 0);

    load(network(subnet64, Default::allow, Default::deny));

    EXPECT_TRUE(lab->drops({.from = outside, .to = vm1, .port = 22}));
}

TEST_F(LoadTest, KeepsTheOldRulesWhenItRefusesTheNewOnes) {
    enforce(network(subnet64, Default::allow, Default::deny));

    const Finished refused =
        tryLoad("pass out quick from any to 192.168.64.0/24 keep state\nhello\n");

    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(
        refused.error,
        "/tmp/ruleset.conf:2: syntax error\n"
        "pfctl: Syntax error in config file: pf rules not loaded\n");
    EXPECT_TRUE(lab->drops({.from = outside, .to = vm1, .port = 22}));
    EXPECT_TRUE(lab->passes({.from = vm1, .to = outside, .port = 22}));
}

TEST_F(LoadTest, OpensTheNetworkWhenTheRulesAreFlushed) {
    enforce(network(subnet64, Default::deny, Default::deny));
    ASSERT_TRUE(lab->drops({.from = vm1, .to = outside, .port = 22}));

    const Finished flushed = pfctl({"-a", anchor, "-F", "rules"});

    EXPECT_EQ(flushed.status, 0);
    EXPECT_EQ(flushed.error, "rules cleared\n");
    EXPECT_TRUE(lab->passes({.from = vm1, .to = outside, .port = 22}));
    EXPECT_TRUE(lab->passes({.from = outside, .to = vm1, .port = 22}));
    EXPECT_EQ(pfctl({"-a", anchor, "-v", "-sr"}).output, "");
}

TEST_F(LoadTest, OpensTheNetworkWhenTheRulesetIsEmpty) {
    enforce(network(subnet64, Default::deny, Default::deny));

    load("# nothing\n\n");

    EXPECT_TRUE(lab->passes({.from = vm1, .to = outside, .port = 22}));
    EXPECT_EQ(pfctl({"-a", anchor, "-v", "-sr"}).output, "");
}

TEST_F(LoadTest, LetsTheMachinesAskTheGatewayForNames) {
    enforce(network(
        subnet64,
        Default::deny,
        Default::deny,
        {"pass in quick proto udp from 192.168.64.0/24 to 192.168.64.1/32 port 53 keep state",
         "pass in quick proto tcp from 192.168.64.0/24 to 192.168.64.1/32 port 53 keep state"}));

    for (const Protocol protocol : {Protocol::tcp, Protocol::udp}) {
        EXPECT_TRUE(lab->passes({.protocol = protocol, .from = vm1, .to = gateway64, .port = 53}));
        EXPECT_TRUE(lab->drops({.protocol = protocol, .from = vm1, .to = gateway64, .port = 54}));
        EXPECT_TRUE(lab->drops({.protocol = protocol, .from = vm1, .to = gateway65, .port = 53}));
        EXPECT_TRUE(lab->drops({.protocol = protocol, .from = vm1, .to = outside, .port = 53}));
    }
}

TEST_F(LoadTest, LetsTheMachinesRenewTheirLeases) {
    const auto udp = [](const Host& from,
                        std::uint16_t fromPort,
                        const Host& to,
                        std::uint16_t port) {
        return Exchange{
            .protocol = Protocol::udp, .from = from, .to = to, .port = port, .fromPort = fromPort};
    };
    enforce(network(subnet64, Default::deny, Default::deny));

    EXPECT_TRUE(lab->passes(udp(vm2, 68, gateway64, 67)));
    EXPECT_TRUE(lab->passes(udp(outside, 67, vm1, 68)));
    EXPECT_TRUE(lab->drops(udp(vm2, 69, gateway64, 67)));
    EXPECT_TRUE(lab->drops(udp(vm2, 68, gateway64, 66)));
    EXPECT_TRUE(lab->drops(udp(outside, 67, vm1, 69)));
    EXPECT_TRUE(lab->drops(udp(outside, 66, vm1, 68)));
    EXPECT_TRUE(lab->drops({.from = vm2, .to = gateway64, .port = 67, .fromPort = 68}));
}

TEST_F(LoadTest, LetsTheFirstOfTwoOverlappingNetworksDecide) {
    const std::string narrow = network(subnet64, Default::allow, Default::allow);
    const std::string wide = network("192.168.64.0/20", Default::deny, Default::deny);
    const Exchange fromNarrow{.from = vm1, .to = outside, .port = 22};
    const Exchange fromWide{.from = vm3, .to = outside, .port = 22};

    enforce(narrow + wide);
    EXPECT_TRUE(lab->passes(fromNarrow));
    EXPECT_TRUE(lab->drops(fromWide));

    enforce(wide + narrow);
    EXPECT_TRUE(lab->drops(fromNarrow));
    EXPECT_TRUE(lab->drops(fromWide));
}

TEST_F(LoadTest, FallsThroughToTheWiderNetworkInMidStream) {
    Question old = lab->established({.from = vm1, .to = outside, .port = 22});

    enforce(
        network(subnet64, Default::allow, Default::allow) +
        network("192.168.64.0/20", Default::deny, Default::deny));

    EXPECT_TRUE(lab->nowDrops(old));
}

TEST_F(LoadTest, CountsThePacketsThatEachLineDecidedOn) {
    enforce(network(
        subnet64,
        Default::allow,
        Default::deny,
        {"pass out quick proto tcp from any to 192.168.64.0/24 port 22 keep state",
         "block drop in quick proto udp from 192.168.64.0/24 to 10.0.0.0/8 port 50:60"}));

    for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(lab->passes({.from = outside, .to = vm1, .port = 22}));
    }
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(lab->drops({.protocol = Protocol::udp, .from = vm1, .to = office, .port = 53}));
    }
    EXPECT_TRUE(lab->passes({.protocol = Protocol::udp, .from = vm1, .to = outside, .port = 53}));
    EXPECT_TRUE(lab->passes({.protocol = Protocol::ping, .from = vm1, .to = office}));
    EXPECT_TRUE(lab->drops({.protocol = Protocol::ping, .from = office, .to = vm2}));

    EXPECT_THAT(
        linesWithCounts(),
        ElementsAre(
            Pair(
                "pass in quick inet proto udp from 192.168.64.0/24 port = 68 to any port = 67 keep "
                "state",
                0),
            Pair(
                "pass out quick inet proto udp from any port = 67 to 192.168.64.0/24 port = 68 "
                "keep "
                "state",
                0),
            Pair(
                "pass out quick inet proto tcp from any to 192.168.64.0/24 port = 22 flags S/SA "
                "keep "
                "state",
                4),
            Pair(
                "block drop in quick inet proto udp from 192.168.64.0/24 to 10.0.0.0/8 port 50:60",
                3),
            Pair("pass in quick inet from 192.168.64.0/24 to any flags S/SA keep state", 2),
            Pair("block drop out quick inet from any to 192.168.64.0/24", 1)));
}

TEST_F(LoadTest, KeepsCountersWhenPfIsEnabledAndResetsThemByALoad) {
    const std::string ruleset = "block drop out quick from any to 192.168.64.0/24\n";
    const std::string line = "block drop out quick inet from any to 192.168.64.0/24";
    enforce(ruleset);
    ASSERT_TRUE(lab->drops({.protocol = Protocol::ping, .from = outside, .to = vm1}));

    pfctl({"-E"});
    EXPECT_THAT(linesWithCounts(), ElementsAre(Pair(line, 1)));

    load(ruleset);
    EXPECT_THAT(linesWithCounts(), ElementsAre(Pair(line, 0)));
}

void LoadTest::expectNothingThroughWhileLoading(const std::string& one, const std::string& two) {
    constexpr int reloads = 200;
    std::ofstream("/tmp/one.conf") << one;
    std::ofstream("/tmp/two.conf") << two;
    ASSERT_EQ(pfctl({"-a", anchor, "-f", "/tmp/one.conf"}).status, 0);
    ASSERT_EQ(pfctl({"-E"}).status, 0);
    Question longLived = lab->established({.from = vm3, .to = outside, .port = 22});

    Program reloading(
        {"/bin/sh",
         "-e",
         "-c",
         "i=0; while [ $i -lt " + std::to_string(reloads / 2) +
             " ]; do i=$((i + 1))\n"
             "for rules in one two; do /sbin/pfctl -a " +
             anchor + " -f /tmp/$rules.conf; done; done"});
    std::vector<Question> denied;
    for (const Host& from : {vm1, vm2}) {
        for (const Host& to : {outside, office, vm3}) {
            denied.push_back(
                lab->ask({.protocol = Protocol::udp, .from = from, .to = to, .port = 99}));
        }
    }
    while (reloading.running()) {
        for (int i = 0; i < 100; ++i) {
            for (Question& question : denied) {
                question.repeat();
            }
        }
        ASSERT_TRUE(lab->stillPasses(longLived));

        // At the moment of the change a new flow's packet may be lost, as on any network.
        Question allowed =
            lab->ask({.protocol = Protocol::udp, .from = vm3, .to = outside, .port = 53});
        lab->settle({&allowed, 1}, NetworkLab::silenceTimeout);
        ASSERT_TRUE(allowed.outcome() == Outcome::answered || lab->stillPasses(allowed));
    }
    lab->settle(denied, NetworkLab::silenceTimeout);

    const Finished finished = reloading.finish();
    EXPECT_EQ(finished.status, 0) << finished.error;
    EXPECT_EQ(lab->arrivals(99), 0U);
}

TEST_F(LoadTest, LetsNothingThroughWhileRulesAreReplaced) {
    expectNothingThroughWhileLoading(
        network(subnet64, Default::deny, Default::deny) +
            network("192.168.65.0/24", Default::allow, Default::deny),
        "block drop in quick from 192.168.64.0/24 to any\n" +
            network("192.168.64.0/20", Default::allow, Default::allow));
}

TEST_F(LoadTest, LetsNothingThroughWhileLinesOfANetworkAreChanged) {
    const std::string other = network("192.168.65.0/24", Default::allow, Default::deny);
    expectNothingThroughWhileLoading(
        network(subnet64, Default::deny, Default::deny) + other,
        "block drop in quick from 192.168.64.0/24 to 203.0.113.0/24\n" +
            network(subnet64, Default::deny, Default::deny) + other);
}

TEST_F(LoadTest, LetsNothingThroughThatHasBegunItsWayPastOtherRules) {
    TARNVALE_NEEDS(largeBuffers);
    constexpr int reloads = 80;
    // Rules of somebody else, which keep every packet busy for longer than a load takes.
    std::string others;
    for (int i = 0; i < 50'000; ++i) {
        others += "block drop in quick from 192.168.64.0/24 to 10.0." + std::to_string(i / 250) +
                  "." + std::to_string(i % 250) + "/32\n";
    }
    enforce(network(subnet64, Default::deny, Default::deny));
    std::ofstream("/tmp/others.conf") << others << std::flush;
    ASSERT_EQ(pfctl({"-a", "com.apple/800.others", "-f", "/tmp/others.conf"}).status, 0);

    Program reloading(
        {"/bin/sh",
         "-e",
         "-c",
         "i=0; while [ $i -lt " + std::to_string(reloads) + " ]; do i=$((i + 1))\n/sbin/pfctl -a " +
             anchor + " -f " + rulesetFile + "; done"});
    Question denied = lab->ask({.protocol = Protocol::udp, .from = vm1, .to = outside, .port = 99});
    while (reloading.running()) {
        denied.repeat();
    }
    lab->settle({&denied, 1}, NetworkLab::silenceTimeout);

    const Finished finished = reloading.finish();
    EXPECT_EQ(finished.status, 0) << finished.error;
    EXPECT_EQ(lab->arrivals(99), 0U);
}

TEST_F(LoadTest, IsRefusedAsBusyWhileAnotherOneRuns) {
    TARNVALE_NEEDS(largeBuffers);
    std::string large = network(subnet64, Default::allow, Default::deny);
    for (int i = 0; i < 5000; ++i) {
        large += "block drop in quick from 192.168.64.0/24 to 10.0." + std::to_string(i / 250) +
                 "." + std::to_string(i % 250) + "/32\n";
    }
    std::ofstream(rulesetFile) << large << std::flush;

    bool collided = false;
    for (int attempt = 0; attempt < 20 && !collided; ++attempt) {
        std::deque<Program> loads;
        for (int i = 0; i < 4; ++i) {
            loads.emplace_back(
                std::vector<std::string>{"/sbin/pfctl", "-a", anchor, "-f", rulesetFile});
        }
        int loaded = 0;
        for (Program& running : loads) {
            const Finished finished = running.finish();
            if (finished.status == 0) {
                ++loaded;
            } else {
                EXPECT_EQ(finished.status, 1);
                EXPECT_EQ(finished.error, "pfctl: DIOCXCOMMIT: Resource busy\n");
                collided = true;
            }
        }
        EXPECT_GE(loaded, 1);
    }

    EXPECT_TRUE(collided);
    EXPECT_EQ(linesWithCounts().size(), 5004U);
}

}  // namespace
}  // namespace tarnvale::test
