// SPDX-License-Identifier: MIT

#include "helperctl/MacTools.h"

#include <gtest/gtest.h>

namespace tarnvale::helperctl {
namespace {

constexpr std::string_view isOn = "Firewall is enabled. (State = 1)\n";
constexpr std::string_view blocksSome = "Firewall has block all state set to disabled.\n";
constexpr std::string_view blocksAll = "Firewall has block all state set to enabled.\n";
constexpr std::string_view blocked = "Incoming connection to the application is blocked\n";
constexpr std::string_view permitted = "Incoming connection to the application is permitted\n";

TEST(MacToolsTest, SeesWhatTheApplicationFirewallBlocks) {
    EXPECT_EQ(isBlocked(isOn, blocksSome, blocked), true);
    EXPECT_EQ(isBlocked(isOn, blocksAll, permitted), true);
    EXPECT_EQ(isBlocked("Firewall is blocking … (State = 2)\n", blocksSome, permitted), true);

    EXPECT_EQ(isBlocked(isOn, blocksSome, permitted), false);
    EXPECT_EQ(
        isBlocked(
            isOn,
            blocksSome,
            "The application at path ( /usr/libexec/bootpd ) is not part of the firewall\n"),
        false);
    EXPECT_EQ(isBlocked("Firewall is disabled. (State = 0)\n", blocksAll, blocked), false);
}

TEST(MacToolsTest, SaysNothingOfWhatItDoesNotKnow) {
    EXPECT_EQ(isBlocked("", "", ""), std::nullopt);
    EXPECT_EQ(isBlocked("Firewall settings cannot be read.\n", blocksAll, blocked), std::nullopt);
    EXPECT_EQ(isBlocked(isOn, blocksSome, "No such application\n"), std::nullopt);
}

TEST(MacToolsTest, SeesWhetherAServiceIsTurnedOff) {
    constexpr std::string_view services =
        "disabled services = {\n"
        "\t\"com.example.off\" => disabled\n"
        "\t\"com.example.on\" => enabled\n"
        "\t\"com.example.older\" => true\n"
        "\t\"com.example.older.on\" => false\n"
        "}\n";

    EXPECT_TRUE(isTurnedOff(services, "com.example.off"));
    EXPECT_TRUE(isTurnedOff(services, "com.example.older"));
    for (const char* service : {"com.example.on", "com.example.older.on", "com.example", ""}) {
        EXPECT_FALSE(isTurnedOff(services, service)) << service;
    }
}

}  // namespace
}  // namespace tarnvale::helperctl
