// SPDX-License-Identifier: MIT
//
// The whole road, from what an application sends to the packets that the kernel drops: policies of
// examples/ in the store, the helper's --reapply, the project's pfctl.

#include <filesystem>
#include <fstream>
#include <map>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/base/AppSupport.h"
#include "firewall/policy/PolicyJson.h"
#include "firewall/policy/Review.h"
#include "platform/HostAddresses.h"
#include "tests/packets/PacketTest.h"
#include "tests/support/HelperFiles.h"

namespace tarnvale::test {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

std::string example(const std::string& name) {
    return contentOf(TARNVALE_SOURCE_DIR "/examples/" + name);
}

/// Stores these lists of policies, each for one user, as the helper would have.
void store(const std::map<std::string, std::string>& policiesByOwner) {
    std::filesystem::create_directories(appSupportDirectory);
    std::ofstream file(std::string(appSupportDirectory) + "/firewall-policies.json");
    file << R"({"owners": {)";
    const char* separator = "";
    for (const auto& [owner, policies] : policiesByOwner) {
        file << separator << '"' << owner << R"(": {"appliedAt": 760000000, "policies": )"
             << policies << '}';
        separator = ", ";
    }
    file << "}}\n" << std::flush;
}

Finished helper(const std::string& mode) {
    return run({TARNVALE_BIN_DIR "/TarnvaleAdminHelper", mode});
}

class WholeRoadTest : public PacketTest {};

TEST_F(WholeRoadTest, LeadsFromTheStoreToThePackets) {
    store({{"501", example("lab.json")}, {"502", example("isolated.json")}});

    EXPECT_EQ(helper("--reapply").status, 0);

    // Lab: everything goes out but to the office; only ssh comes in.
    EXPECT_TRUE(lab->passes({.from = vm1, .to = outside, .port = 443}));
    EXPECT_TRUE(lab->drops({.from = vm1, .to = office, .port = 443}));
    EXPECT_TRUE(lab->passes({.from = outside, .to = vm2, .port = 22}));
    EXPECT_TRUE(lab->drops({.from = outside, .to = vm2, .port = 80}));
    EXPECT_TRUE(lab->drops({.protocol = Protocol::ping, .from = gateway64, .to = vm1}));
    // Isolated: it gets names from the gateway and nothing else.
    EXPECT_TRUE(lab->passes({.protocol = Protocol::udp, .from = vm3, .to = gateway65, .port = 53}));
    EXPECT_TRUE(lab->drops({.protocol = Protocol::udp, .from = vm3, .to = outside, .port = 53}));
    EXPECT_TRUE(lab->drops({.from = vm3, .to = vm1, .port = 22}));
    EXPECT_TRUE(lab->drops({.from = vm1, .to = vm3, .port = 22}));
}

TEST_F(WholeRoadTest, ReportsWhatTheLinesHaveDone) {
    store({{"501", example("lab.json")}});
    helper("--reapply");
    ASSERT_TRUE(lab->drops({.protocol = Protocol::ping, .from = vm1, .to = office}));
    ASSERT_TRUE(lab->drops({.protocol = Protocol::udp, .from = vm1, .to = office, .port = 53}));

    const std::string report = helper("--status").output;

    EXPECT_THAT(report, HasSubstr("== pf status ==\nStatus: Enabled for 0 days 00:00:0"));
    EXPECT_THAT(
        report, HasSubstr("\n\n== com.apple/900.tarnvale.firewall ==\npass in quick inet "));
    EXPECT_THAT(
        report,
        testing::ContainsRegex(
            "block drop in quick inet from 192\\.168\\.64\\.0/24 to 10\\.0\\.0\\.0/8\n"
            "  \\[ Evaluations: [0-9]+ +Packets: 2 +Bytes: "));
}

TEST_F(WholeRoadTest, KeepsConnectionsThroughAReapply) {
    store({{"501", example("lab.json")}});
    helper("--reapply");
    Question ssh = lab->established({.from = outside, .to = vm1, .port = 22});

    store({{"501", example("isolated.json")}, {"502", example("lab.json")}});
    helper("--reapply");

    EXPECT_TRUE(lab->stillPasses(ssh));
}

TEST_F(WholeRoadTest, LeavesPfAloneWhenTheStoreIsDamaged) {
    store({{"501", example("lab.json")}});
    helper("--reapply");
    store({{"501", "damaged"}});

    EXPECT_EQ(helper("--reapply").status, 0);

    EXPECT_TRUE(lab->drops({.from = outside, .to = vm2, .port = 80}));
    EXPECT_TRUE(lab->passes({.from = vm1, .to = outside, .port = 443}));
}

TEST(ExamplesTest, AreAcceptedWithoutANote) {
    int examples = 0;
    for (const auto& entry : std::filesystem::directory_iterator(TARNVALE_SOURCE_DIR "/examples")) {
        if (entry.path().extension() != ".json") {
            continue;
        }
        const std::string name = entry.path().filename();
        const auto networks = NetworkFirewall::decodePolicies(example(name));
        const auto review = NetworkFirewall::review(networks, NetworkFirewall::hostAddresses());

        EXPECT_THAT(review.enforceable, SizeIs(networks.size())) << name;
        EXPECT_THAT(review.refused, IsEmpty()) << name;
        EXPECT_THAT(review.skippedRules, IsEmpty()) << name;
        ++examples;
    }
    EXPECT_EQ(examples, 5);
}

}  // namespace
}  // namespace tarnvale::test
