// SPDX-License-Identifier: MIT
//
// The VLAN requests of real clients to the whole service, on a kernel that has 802.1Q.

#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/HelperFiles.h"
#include "tests/support/Service.h"
#include "tests/support/ServiceLab.h"
#include "tests/vlan/Machine.h"

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;

constexpr const char* refusal =
    "Only an administrator of this Mac can make this change through Tarnvale's helper.";

bool isInterface(const std::string& name) {
    return fs::exists("/sys/class/net/" + name);
}

TEST(ServiceVLANTest, AreMadeAndRemovedForAdministratorsOnly) {
    enterMachine();
    const ServiceLab lab;
    ServiceLab::setConsoleUser(firstUser);
    const Service service;
    ServiceClient ada(lab.client, administrator);
    ServiceClient bob(lab.client, firstUser);

    EXPECT_THAT(bob.call("CreateVLAN", "sxs", {"Office", "5", "en0"}), ElementsAre("nil", refusal));
    EXPECT_FALSE(isInterface("vlan0"));
    EXPECT_THAT(
        ada.call("CreateVLAN", "sxs", {" Office ", "5", "en0"}), ElementsAre("vlan0", "nil"));
    EXPECT_EQ(contentOf("/sys/class/net/vlan0/ifalias"), "Office\n");
    EXPECT_THAT(
        ada.call("CreateVLAN", "sxs", {"", "5000", "en0"}),
        ElementsAre("nil", "macOS refused to create the VLAN interface."));
    EXPECT_THAT(
        ada.call("DeleteVLAN", "s", {"theirs"}),
        ElementsAre("Tarnvale's helper only removes VLANs it created."));
    EXPECT_THAT(bob.call("DeleteVLAN", "s", {"vlan0"}), ElementsAre(refusal));
    EXPECT_TRUE(isInterface("vlan0"));
    EXPECT_THAT(ada.call("DeleteVLAN", "s", {"vlan0"}), ElementsAre("nil"));
    EXPECT_FALSE(isInterface("vlan0"));
    EXPECT_TRUE(isInterface("theirs"));

    EXPECT_THAT(
        logMessages(),
        ElementsAre(
            listeningMessage(),
            "Refused createVLAN for uid 502: not an administrator.",
            "Created VLAN vlan0 (tag 5) on en0.",
            "createVLAN failed: macOS refused to create the VLAN interface.",
            "Left VLAN theirs alone: Tarnvale's helper didn't create it.",
            "deleteVLAN failed: Tarnvale's helper only removes VLANs it created.",
            "Refused deleteVLAN for uid 502: not an administrator.",
            "Deleted VLAN vlan0."));
}

}  // namespace
}  // namespace tarnvale::test
