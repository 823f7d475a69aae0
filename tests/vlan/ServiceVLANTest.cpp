// SPDX-License-Identifier: MIT
//
// The VLAN requests of real clients to the whole service, on a kernel that has 802.1Q.

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

#include "tests/support/HelperFiles.h"
#include "tests/support/Program.h"
#include "tests/support/Service.h"
#include "tests/support/ServiceLab.h"

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;

constexpr const char* refusal =
    "Only an administrator of this Mac can make this change through Tarnvale's helper.";

void ip(const std::string& commands) {
    const auto finished = run({"/sbin/ip", "-batch", "-"}, commands);
    if (finished.status != 0) {
        throw std::runtime_error(finished.error);
    }
}

bool isInterface(const std::string& name) {
    return fs::exists("/sys/class/net/" + name);
}

/// A machine with one Ethernet interface and a VLAN that somebody else has made.
void makeMachine() {
    ASSERT_EQ(::unshare(CLONE_NEWNET | CLONE_NEWNS), 0);
    ASSERT_EQ(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    ASSERT_EQ(::mount("sysfs", "/sys", "sysfs", 0, nullptr), 0);
    // The host's files, on which user-mode Linux works, don't report changes: awaitLog needs that.
    for (const char* folder : {"/run", "/var/log"}) {
        ASSERT_EQ(::mount("scratch", folder, "tmpfs", 0, nullptr), 0);
    }
    ip("link add name en0 up type dummy\n"
       "link add link en0 name theirs type vlan id 9\n");
    fs::remove_all(supportFolder);
}

TEST(ServiceVLANTest, AreMadeAndRemovedForAdministratorsOnly) {
    ASSERT_NO_FATAL_FAILURE(makeMachine());
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
