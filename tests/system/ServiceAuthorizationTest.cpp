// SPDX-License-Identifier: MIT
//
// Which user may have the service make which change: real users who ask the real service, with
// somebody, nobody or the login window at the console.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/HelperFiles.h"
#include "tests/support/PrivateRoot.h"
#include "tests/support/Service.h"
#include "tests/support/ServiceLab.h"
#include "tests/support/SkipReasons.h"

namespace tarnvale::test {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;

constexpr const char* refusal =
    "Only an administrator of this Mac can make this change through Tarnvale's helper.";

/// A request and its result where it is allowed. It fails or has nothing to do, so that the
/// requests of several users don't meddle with each other.
struct Change {
    const char* method;
    const char* types;
    Texts arguments;
    Texts allowed;
    const char* operation;
    bool adminOnly;
    std::vector<std::string> logged;  ///< where it is allowed
};

std::vector<Change> changes() {
    return {
        {"ApplyFirewall",
         "ay",
         {"[]"},
         {"None of your networks has an enabled firewall.", "nil"},
         "applyFirewall",
         false,
         {"Applied firewall. No networks have an enabled firewall — the anchor is empty."}},
        {"RemoveFirewall",
         "",
         {},
         {"nil"},
         "removeFirewall",
         false,
         {"Removed firewall enforcement."}},
        {"CreateVLAN",
         "sxs",
         {"Office", "5", "en7"},
         {"nil", "No physical interface named en7."},
         "createVLAN",
         true,
         {"createVLAN failed: No physical interface named en7."}},
        {"DeleteVLAN",
         "s",
         {"vlan7"},
         {"No VLAN interface named vlan7."},
         "deleteVLAN",
         true,
         {"deleteVLAN failed: No VLAN interface named vlan7."}},
        {"InstallCLISymlink",
         "",
         {},
         {"The bundled 'tarnvale' tool isn't at " TARNVALE_BIN_DIR "/tarnvale."},
         "installCLISymlink",
         false,
         {"installCLISymlink failed: The bundled 'tarnvale' tool isn't at " TARNVALE_BIN_DIR
          "/tarnvale."}},
        {"RemoveCLISymlink", "", {}, {"nil"}, "removeCLISymlink", false, {}},
        {"SetTarnvaleResolver", "b", {"false"}, {"nil"}, "setTarnvaleResolver", false, {}},
    };
}

enum class Right : std::uint8_t { none, console, everything };

class ServiceAuthorizationTest : public testing::Test {
protected:
    void SetUp() override {
        TARNVALE_NEEDS(usersProcesses);
        service.emplace();
    }

    /// Makes all requests as that user.
    void expect(uid_t uid, Right right) {
        SCOPED_TRACE(uid);
        std::vector<std::string> log{listeningMessage()};
        ServiceClient client(lab.client, uid);
        for (const Change& change : changes()) {
            const bool allowed =
                right == Right::everything || (right == Right::console && !change.adminOnly);
            Texts refused(change.allowed.size(), "nil");
            refused.back() = refusal;
            if (allowed) {
                log.insert(log.end(), change.logged.begin(), change.logged.end());
            } else {
                log.push_back(
                    std::string("Refused ") + change.operation + " for uid " + std::to_string(uid) +
                    (change.adminOnly ? ": not an administrator."
                                      : ": not an administrator or the console user."));
            }

            EXPECT_THAT(
                client.call(change.method, change.types, change.arguments),
                ElementsAreArray(allowed ? change.allowed : refused));
        }
        EXPECT_THAT(client.call("HelperVersion"), ElementsAre(helperVersion()));
        EXPECT_THAT(
            client.call("FirewallReport"),
            ElementsAre(testing::StartsWith("== pf status =="), "nil"));

        EXPECT_THAT(logMessages(), ElementsAreArray(log));
        put(logPath, listeningMessageLine());
    }

    ServiceLab lab;
    std::optional<Service> service;

private:
    /// A log as it was when the service had started.
    static std::string listeningMessageLine() {
        const std::string log = contentOf(logPath);
        return log.substr(0, log.find('\n') + 1);
    }
};

TEST_F(ServiceAuthorizationTest, WhileAUserIsAtTheConsole) {
    ServiceLab::setConsoleUser(firstUser);

    expect(rootUser, Right::everything);
    expect(administrator, Right::everything);
    expect(firstUser, Right::console);
    expect(secondUser, Right::none);
}

TEST_F(ServiceAuthorizationTest, WhileAnAdministratorIsAtTheConsole) {
    ServiceLab::setConsoleUser(administrator);

    expect(rootUser, Right::everything);
    expect(administrator, Right::everything);
    expect(firstUser, Right::none);
}

TEST_F(ServiceAuthorizationTest, WhileTheLoginWindowShows) {
    ServiceLab::showLoginWindow();

    expect(rootUser, Right::everything);
    expect(administrator, Right::everything);
    expect(firstUser, Right::none);
}

TEST_F(ServiceAuthorizationTest, WhileNobodyIsAtTheConsole) {
    expect(rootUser, Right::everything);
    expect(administrator, Right::everything);
    expect(firstUser, Right::none);
}

TEST_F(ServiceAuthorizationTest, WithoutUsersAndGroupsOnlyRootMay) {
    ServiceLab::setConsoleUser(firstUser);
    put("/etc/passwd", "");
    put("/etc/group", "");

    expect(rootUser, Right::everything);
    expect(administrator, Right::none);
    expect(firstUser, Right::none);
}

TEST_F(ServiceAuthorizationTest, AsksAfreshForEachRequest) {
    ServiceLab::setConsoleUser(firstUser);
    ServiceClient client(lab.client, firstUser);
    EXPECT_THAT(client.call("RemoveCLISymlink"), ElementsAre("nil"));

    ServiceLab::setConsoleUser(secondUser);

    EXPECT_THAT(client.call("RemoveCLISymlink"), ElementsAre(refusal));

    put("/etc/group", "admin:x:80:ada,bob\n");

    EXPECT_THAT(client.call("RemoveCLISymlink"), ElementsAre("nil"));
}

}  // namespace
}  // namespace tarnvale::test
