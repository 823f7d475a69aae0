// SPDX-License-Identifier: MIT

#include "tests/packets/PacketTest.h"

#include <filesystem>
#include <fstream>

#include "tests/support/LabOrSkip.h"

namespace tarnvale::test {

std::string network(
    const std::string& subnet,
    Default outbound,
    Default inbound,
    const std::vector<std::string>& rules) {
    std::string text = "# --- Network (" + subnet + ") ---\n" + "pass in quick proto udp from " +
                       subnet + " port 68 to any port 67 keep state\n" +
                       "pass out quick proto udp from any port 67 to " + subnet + " port 68\n";
    for (const std::string& rule : rules) {
        text += rule + "\n";
    }
    text += outbound == Default::allow ? "pass in quick from " + subnet + " to any keep state\n"
                                       : "block drop in quick from " + subnet + " to any\n";
    text += inbound == Default::allow ? "pass out quick from any to " + subnet + " keep state\n"
                                      : "block drop out quick from any to " + subnet + "\n";
    return text + "\n";
}

Finished pfctl(const std::vector<std::string>& arguments) {
    return run(with({"/sbin/pfctl"}, arguments));
}

Finished tryLoad(const std::string& ruleset) {
    std::ofstream(rulesetFile) << ruleset << std::flush;
    return pfctl({"-a", anchor, "-f", rulesetFile});
}

void load(const std::string& ruleset) {
    const Finished loaded = tryLoad(ruleset);
    ASSERT_EQ(loaded.status, 0) << loaded.error << ruleset;
}

void enforce(const std::string& ruleset) {
    load(ruleset);
    const Finished enabled = pfctl({"-E"});
    ASSERT_EQ(enabled.status, 0) << enabled.error;
}

void PacketTest::SetUp() {
    TARNVALE_NEEDS(interfaces);
    try {
        requirePacketFilter();
    } catch (const LabUnavailable& reason) {
        GTEST_SKIP() << reason.what();
    }
    buildOrSkip(lab);
    if (IsSkipped()) {
        return;
    }
    std::filesystem::remove("/sbin/pfctl");
    std::filesystem::create_symlink(TARNVALE_BIN_DIR "/pfctl", "/sbin/pfctl");
}

}  // namespace tarnvale::test
