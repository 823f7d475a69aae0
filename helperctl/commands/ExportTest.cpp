// SPDX-License-Identifier: MIT

#include "helperctl/commands/Export.h"

#include <string>

#include <gtest/gtest.h>

#include "firewall/policy/PolicyJson.h"
#include "tests/support/RandomPolicies.h"

namespace tarnvale::helperctl {
namespace {

TEST(ExportTest, PrintsAFileOfTheSameNetworks) {
    test::RandomPolicies random(11);
    for (int i = 0; i < 200; ++i) {
        auto networks = random.networks(4);
        for (auto& network : networks) {
            network.name = "Büro \"" + std::to_string(i) + "\"\n";  // random ones aren't UTF-8
        }
        NetworkFirewall::PolicyStore store;
        store.owners["501"].policies = networks;

        const auto file = exported(store, "501");

        EXPECT_EQ(file.has_value(), !networks.empty());
        if (file) {
            EXPECT_EQ(NetworkFirewall::decodePolicies(*file), networks);
        }
        EXPECT_EQ(exported(store, "502"), std::nullopt);
    }
}

}  // namespace
}  // namespace tarnvale::helperctl
