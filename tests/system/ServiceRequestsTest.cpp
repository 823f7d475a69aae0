// SPDX-License-Identifier: MIT
//
// The requests other than the firewall's, as a client sees them: what they change, what they
// reply, what the log says.

#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/HelperFiles.h"
#include "tests/support/Program.h"
#include "tests/support/Service.h"
#include "tests/support/ServiceLab.h"

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* tool = "/Applications/Tarnvale.app/Contents/Helpers/tarnvale";

class ServiceRequestsTest : public testing::Test {
protected:
    /// What the log says since it was last looked at.
    static std::vector<std::string> takeLog() {
        auto messages = logMessages();
        fs::remove(logPath);
        return messages;
    }

    ServiceLab lab;
};

TEST_F(ServiceRequestsTest, TellsItsVersion) {
    const Service service;
    ServiceClient client(lab.client);

    EXPECT_THAT(client.call("HelperVersion"), ElementsAre(helperVersion()));
    EXPECT_EQ(run({helperProgram, "--version"}).output, helperVersion() + "\n");
}

TEST_F(ServiceRequestsTest, SaysWhyThereIsNoVLAN) {
    const Service service;
    ServiceClient client(lab.client);
    takeLog();

    EXPECT_THAT(
        client.call("CreateVLAN", "sxs", {"Office", "5", "en7"}),
        ElementsAre("nil", "No physical interface named en7."));
    EXPECT_THAT(
        client.call("DeleteVLAN", "s", {"vlan0"}), ElementsAre("No VLAN interface named vlan0."));

    EXPECT_THAT(
        takeLog(),
        ElementsAre(
            "createVLAN failed: No physical interface named en7.",
            "deleteVLAN failed: No VLAN interface named vlan0."));
    EXPECT_FALSE(exists(supportFolder));
}

TEST_F(ServiceRequestsTest, PlacesAndRemovesTheToolsLinks) {
    const Service service({.program = ServiceLab::installedHelper(), .listeningSocket = -1});
    ServiceClient client(lab.client);
    fs::create_directories("/usr/local/bin");
    fs::create_symlink("/elsewhere/Tarnvale.app/Contents/Helpers/tx", "/usr/local/bin/tx");
    fs::create_symlink("/opt/other/txr", "/usr/local/bin/txr");
    takeLog();

    EXPECT_THAT(client.call("InstallCLISymlink"), ElementsAre("nil"));

    const std::string left =
        "Left /usr/local/bin/txr alone: it points at /opt/other/txr, not a Tarnvale bundle.";
    EXPECT_THAT(
        takeLog(),
        ElementsAre(
            std::string("Linked /usr/local/bin/tarnvale -> ") + tool + ".",
            std::string("Linked /usr/local/bin/tvx -> ") + tool + ".",
            "Removed /usr/local/bin/tx.",
            left));
    EXPECT_EQ(fs::read_symlink("/usr/local/bin/tarnvale"), tool);
    EXPECT_EQ(fs::read_symlink("/usr/local/bin/tvx"), tool);

    EXPECT_THAT(client.call("RemoveCLISymlink"), ElementsAre("nil"));

    EXPECT_THAT(
        takeLog(),
        ElementsAre("Removed /usr/local/bin/tarnvale.", "Removed /usr/local/bin/tvx.", left));
    EXPECT_THAT(namesIn("/usr/local/bin"), ElementsAre("txr"));
}

TEST_F(ServiceRequestsTest, SaysWhatIsInTheWayOfALink) {
    const Service service({.program = ServiceLab::installedHelper(), .listeningSocket = -1});
    ServiceClient client(lab.client);
    put("/usr/local/bin/tvx", "somebody's");
    takeLog();

    const std::string reason =
        "/usr/local/bin/tvx already exists and isn't a Tarnvale link. Move "
        "it aside, then try again.";
    EXPECT_THAT(client.call("InstallCLISymlink"), ElementsAre(reason));

    EXPECT_THAT(
        takeLog(),
        ElementsAre(
            std::string("Linked /usr/local/bin/tarnvale -> ") + tool + ".",
            "installCLISymlink failed: " + reason));
    EXPECT_EQ(contentOf("/usr/local/bin/tvx"), "somebody's");
}

TEST_F(ServiceRequestsTest, FailsToRemoveLinksFromAFolderThatIsALink) {
    const Service service;
    ServiceClient client(lab.client);
    fs::remove_all("/usr/local");
    fs::create_directories("/usr/local");
    fs::create_symlink("/tmp", "/usr/local/bin");
    takeLog();

    const std::string reason =
        "/usr/local/bin isn't a real folder (it's a link or a file), so "
        "Tarnvale won't link into it.";
    EXPECT_THAT(client.call("RemoveCLISymlink"), ElementsAre(reason));

    EXPECT_THAT(takeLog(), ElementsAre("removeCLISymlink failed: " + reason));
}

TEST_F(ServiceRequestsTest, SetsTheResolverOnAndOff) {
    const Service service;
    ServiceClient client(lab.client);
    fs::remove_all("/etc/resolver");
    takeLog();

    EXPECT_THAT(client.call("SetTarnvaleResolver", "b", {"true"}), ElementsAre("nil"));
    EXPECT_THAT(
        takeLog(),
        ElementsAre("Installed /etc/resolver/tvx.", "Installed /etc/resolver/tarnvale."));
    EXPECT_EQ(
        contentOf("/etc/resolver/tarnvale"),
        "# Installed by Tarnvale: <vm>.tarnvale names resolve to its VMs.\n"
        "nameserver 127.0.0.1\nport 5380\ntimeout 2\n");
    EXPECT_EQ(modeOf("/etc/resolver/tarnvale"), 0644U);

    EXPECT_THAT(client.call("SetTarnvaleResolver", "b", {"true"}), ElementsAre("nil"));
    EXPECT_THAT(takeLog(), IsEmpty());

    EXPECT_THAT(client.call("SetTarnvaleResolver", "b", {"false"}), ElementsAre("nil"));
    EXPECT_THAT(
        takeLog(), ElementsAre("Removed /etc/resolver/tvx.", "Removed /etc/resolver/tarnvale."));
    EXPECT_THAT(namesIn("/etc/resolver"), IsEmpty());

    EXPECT_THAT(client.call("SetTarnvaleResolver", "b", {"false"}), ElementsAre("nil"));
    EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(ServiceRequestsTest, SaysWhyTheResolverCannotBeSet) {
    const Service service;
    ServiceClient client(lab.client);
    fs::remove_all("/etc/resolver");
    put("/etc/resolver", "a file");
    takeLog();

    const std::string reason = "The file “tvx” couldn’t be saved in the folder “resolver”.";
    EXPECT_THAT(client.call("SetTarnvaleResolver", "b", {"true"}), ElementsAre(reason));

    EXPECT_THAT(takeLog(), ElementsAre("setTarnvaleResolver failed: " + reason));
}

TEST_F(ServiceRequestsTest, TakesNoOtherTypesAndKnowsNoOtherRequest) {
    const Service service;
    ServiceClient client(lab.client);
    takeLog();

    const Texts wrongArguments{"error", "org.freedesktop.DBus.Error.InvalidArgs"};
    EXPECT_EQ(client.call("ApplyFirewall", "s", {"[]"}), wrongArguments);
    EXPECT_EQ(client.call("SetTarnvaleResolver"), wrongArguments);
    EXPECT_EQ(client.call("RemoveFirewall", "s", {"501"}), wrongArguments);
    EXPECT_THAT(
        client.call("RunCommand", "s", {"true"}),
        ElementsAre("error", "org.freedesktop.DBus.Error.UnknownMethod"));

    EXPECT_THAT(takeLog(), IsEmpty());
    EXPECT_THAT(client.call("HelperVersion"), ElementsAre(helperVersion()));
}

}  // namespace
}  // namespace tarnvale::test
