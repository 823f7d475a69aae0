// SPDX-License-Identifier: MIT

#include "tests/support/NetworkLab.h"

#include <array>
#include <fstream>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/LabOrSkip.h"

namespace tarnvale::test {
namespace {

constexpr std::array hosts{vm1, vm2, vm3, outside, office, gateway64, gateway65, uplink};

class NetworkLabTest : public testing::Test {
protected:
    void SetUp() override { buildOrSkip(lab); }

    std::unique_ptr<NetworkLab> lab;
};

TEST_F(NetworkLabTest, LetsAllHostsTalkToEachOther) {
    std::vector<Exchange> exchanges;
    for (const Host& from : hosts) {
        for (const Host& to : hosts) {
            for (const Protocol protocol : {Protocol::tcp, Protocol::udp, Protocol::ping}) {
                exchanges.push_back({.protocol = protocol, .from = from, .to = to, .port = 22});
            }
        }
    }

    const std::vector<Outcome> outcomes =
        lab->run(exchanges, std::vector<bool>(exchanges.size(), true));

    for (std::size_t i = 0; i < exchanges.size(); ++i) {
        EXPECT_EQ(outcomes.at(i), Outcome::answered) << description(exchanges.at(i));
    }
}

TEST_F(NetworkLabTest, TellsARefusedQuestionFromASilentOne) {
    const Exchange closed{
        .protocol = Protocol::udp, .from = vm1, .to = outside, .port = 99, .listened = false};
    const Exchange lost{
        .protocol = Protocol::udp, .from = vm1, .to = vm3, .port = 99, .timeToLive = 1};
    const Exchange reset{.from = vm1, .to = outside, .port = 99, .listened = false};

    EXPECT_EQ(
        lab->run(std::array{closed, lost, reset}, {true, true, true}),
        std::vector(3, Outcome::refused));
}

TEST_F(NetworkLabTest, RoutesBetweenItsNetworksButSwitchesInsideThem) {
    std::ofstream("/proc/sys/net/ipv4/ip_forward") << 0 << std::flush;

    EXPECT_TRUE(lab->passes({.from = vm1, .to = vm2, .port = 22}));
    EXPECT_TRUE(lab->passes({.from = vm1, .to = gateway65, .port = 22}));
    EXPECT_TRUE(lab->drops({.from = vm1, .to = vm3, .port = 22}));
    EXPECT_TRUE(lab->drops({.protocol = Protocol::ping, .from = outside, .to = vm1}));
}

TEST_F(NetworkLabTest, AsksAgainInTheSameFlow) {
    Question question = lab->ask({.from = vm1, .to = outside, .port = 22});
    lab->settle({&question, 1}, NetworkLab::answerTimeout);

    EXPECT_EQ(question.outcome(), Outcome::answered);
    EXPECT_TRUE(lab->stillPasses(question));
}

}  // namespace
}  // namespace tarnvale::test
