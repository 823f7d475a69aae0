// SPDX-License-Identifier: MIT
//
// What the tests with real packets have in common: the network lab, in whose router the project's
// own pfctl is /sbin/pfctl.

#pragma once

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/NetworkLab.h"
#include "tests/support/Program.h"

namespace tarnvale::test {

/// The anchor of the helper's rules; their file.
inline constexpr const char* anchor = "com.apple/900.tarnvale.firewall";
inline constexpr const char* rulesetFile = "/tmp/ruleset.conf";

/// The lab's first network of machines.
inline constexpr const char* subnet64 = "192.168.64.0/24";

enum class Default : std::uint8_t { allow, deny };

/// The lines of one network in the order in which the helper writes them: DHCP, `rules`, and what
/// happens to the rest of the traffic from the machines and to them.
std::string network(
    const std::string& subnet,
    Default outbound,
    Default inbound,
    const std::vector<std::string>& rules = {});

/// Runs pfctl with these arguments.
Finished pfctl(const std::vector<std::string>& arguments);

/// Loads the text into the anchor; what pfctl says about it.
Finished tryLoad(const std::string& ruleset);

/// Loads the text into the anchor, where it must be accepted.
void load(const std::string& ruleset);

/// The same, and makes pf enforce it.
void enforce(const std::string& ruleset);

class PacketTest : public testing::Test {
protected:
    void SetUp() override;

    std::unique_ptr<NetworkLab> lab;
};

}  // namespace tarnvale::test
