// SPDX-License-Identifier: MIT
//
// The firewalls of several users, from their requests to what pf enforces.

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/HelperFiles.h"
#include "tests/support/JsonOracle.h"
#include "tests/support/LabOrSkip.h"
#include "tests/support/NetworkLab.h"
#include "tests/support/Pattern.h"
#include "tests/support/PolicyText.h"
#include "tests/support/PrivateRoot.h"
#include "tests/support/Program.h"
#include "tests/support/ScriptedPfctl.h"
#include "tests/support/Service.h"
#include "tests/support/ServiceLab.h"
#include "tests/support/SkipReasons.h"

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr const char* emptyAnchor = "(anchor is empty — nothing enforced)";

Texts applyFor(ServiceClient& client, const std::vector<NetworkText>& networks) {
    return client.call("ApplyFirewall", "ay", {policyText(networks)});
}

/// What the store holds, its times replaced by 0.
OracleValue stored() {
    static const Pattern time(R"("appliedAt" *: *[-+.0-9e]+)");
    return jsonValue(time.replaceAll(contentOf(storePath), R"("appliedAt":0)"));
}

/// The keys of the store's owners.
std::vector<std::string> storedOwners() {
    const auto store = stored();
    std::vector<std::string> owners;
    for (const auto& [owner, entry] : jsonObject(store.at("owners"))) {
        owners.push_back(owner);
    }
    return owners;
}

/// The rules in the ruleset's file.
std::string writtenRules() {
    return Pattern("#[^\n]*\n+").replaceAll(contentOf(rulesetPath), "");
}

class ServiceFirewallTest : public testing::Test {
protected:
    void SetUp() override {
        TARNVALE_NEEDS(usersProcesses);
        ServiceLab::setConsoleUser(firstUser);
    }

    /// The messages since the service listens.
    static std::vector<std::string> log() {
        auto messages = logMessages();
        const auto listening = std::find(messages.begin(), messages.end(), listeningMessage());
        messages.erase(messages.begin(), listening + 1);
        return messages;
    }

    ServiceLab lab;
};

TEST_F(ServiceFirewallTest, EnforcesTheNetworksOfAllUsersTogether) {
    const Service service;
    ServiceClient bob(lab.client, firstUser);
    ServiceClient ada(lab.client, administrator);

    EXPECT_THAT(
        applyFor(bob, {{.number = 64, .rules = {{.remoteCIDR = "10.0.0.0/8"}}}}),
        ElementsAre("Enforcing 1 network: Lab", "nil"));
    EXPECT_THAT(
        applyFor(ada, {{65, "Office"}}),
        ElementsAre("Enforcing 1 network: Office · 1 more for other users of this Mac", "nil"));

    EXPECT_THAT(
        log(),
        ElementsAre(
            "Applied firewall. Enforcing 1 network for all users: Lab",
            "Applied firewall. Enforcing 2 networks for all users: Office, Lab"));
    EXPECT_EQ(
        stored(),
        jsonValue(storeText(
            {{.key = "501", .networks = {{65, "Office"}}, .appliedAt = "0"},
             {.key = "502",
              .networks = {{.number = 64, .rules = {{.remoteCIDR = "10.0.0.0/8"}}}},
              .appliedAt = "0"}})));
    EXPECT_EQ(modeOf(storePath), 0600U);
    EXPECT_EQ(
        writtenRules(),
        "pass in quick proto udp from 192.168.65.0/24 port 68 to any port 67 keep state\n"
        "pass out quick proto udp from any port 67 to 192.168.65.0/24 port 68\n"
        "pass in quick from 192.168.65.0/24 to any keep state\n"
        "block drop out quick from any to 192.168.65.0/24\n"
        "\n"
        "pass in quick proto udp from 192.168.64.0/24 port 68 to any port 67 keep state\n"
        "pass out quick proto udp from any port 67 to 192.168.64.0/24 port 68\n"
        "pass out quick proto tcp from 10.0.0.0/8 to 192.168.64.0/24 port 22 keep state\n"
        "pass in quick from 192.168.64.0/24 to any keep state\n"
        "block drop out quick from any to 192.168.64.0/24\n"
        "\n");
    EXPECT_EQ(modeOf(rulesetPath), 0644U);
    EXPECT_EQ(
        listedRules(),
        "pass in quick inet proto udp from 192.168.65.0/24 port = 68 to any port = 67 keep state\n"
        "pass out quick inet proto udp from any port = 67 to 192.168.65.0/24 port = 68 keep "
        "state\n"
        "pass in quick inet from 192.168.65.0/24 to any flags S/SA keep state\n"
        "block drop out quick inet from any to 192.168.65.0/24\n"
        "pass in quick inet proto udp from 192.168.64.0/24 port = 68 to any port = 67 keep state\n"
        "pass out quick inet proto udp from any port = 67 to 192.168.64.0/24 port = 68 keep "
        "state\n"
        "pass out quick inet proto tcp from 10.0.0.0/8 to 192.168.64.0/24 port = 22 flags S/SA "
        "keep state\n"
        "pass in quick inet from 192.168.64.0/24 to any flags S/SA keep state\n"
        "block drop out quick inet from any to 192.168.64.0/24\n");
}

TEST_F(ServiceFirewallTest, RemovesOneUsersNetworksAndThenTheLasts) {
    const Service service;
    ServiceClient bob(lab.client, firstUser);
    ServiceClient ada(lab.client, administrator);
    applyFor(bob, {{64}});
    applyFor(ada, {{65, "Office"}});
    fs::remove(logPath);

    EXPECT_THAT(ada.call("RemoveFirewall"), ElementsAre("nil"));

    EXPECT_THAT(
        logMessages(),
        ElementsAre(
            "Applied firewall. Enforcing 1 network for all users: Lab",
            "Removed uid 501's firewall policies; other users' stay in force."));
    EXPECT_THAT(storedOwners(), ElementsAre("502"));
    EXPECT_THAT(
        listedRules(), AllOf(HasSubstr("192.168.64.0/24"), Not(HasSubstr("192.168.65.0/24"))));

    fs::remove(logPath);
    EXPECT_THAT(bob.call("RemoveFirewall"), ElementsAre("nil"));

    EXPECT_THAT(logMessages(), ElementsAre("Removed firewall enforcement."));
    EXPECT_FALSE(exists(storePath));
    EXPECT_FALSE(exists(rulesetPath));
    EXPECT_THAT(bob.call("FirewallReport"), ElementsAre(EndsWith(emptyAnchor), "nil"));
}

TEST_F(ServiceFirewallTest, GivesAContestedSubnetToWhoAppliedLast) {
    const Service service;
    ServiceClient bob(lab.client, firstUser);
    ServiceClient ada(lab.client, administrator);
    applyFor(bob, {{64}});

    EXPECT_THAT(
        applyFor(ada, {{65, "Office", "192.168.64.9/24"}}),
        ElementsAre("Enforcing 1 network: Office · 1 more for other users of this Mac", "nil"));
    EXPECT_THAT(
        applyFor(bob, {{64}}),
        ElementsAre("Enforcing 1 network: Lab · 1 more for other users of this Mac", "nil"));

    EXPECT_THAT(
        log(),
        ElementsAre(
            "Applied firewall. Enforcing 1 network for all users: Lab",
            "192.168.64.0/24 is claimed by networks of more than one user; uid 502's \"Lab\" is "
            "left out for the most recently applied one.",
            "Applied firewall. Enforcing 1 network for all users: Office",
            "192.168.64.0/24 is claimed by networks of more than one user; uid 501's \"Office\" is "
            "left out for the most recently applied one.",
            "Applied firewall. Enforcing 1 network for all users: Lab"));
}

TEST_F(ServiceFirewallTest, NamesRefusedNetworksInTheReply) {
    const Service service;
    ServiceClient bob(lab.client, firstUser);
    const std::string report =
        "Enforcing 1 network: Lab · 1 rule skipped\n"
        "Not enforced:\n"
        "• Far: the subnet \"10.0.0.0/24\" isn't one macOS gives a virtual network (a /24 such as "
        "192.168.64.0/24, inside 192.168.0.0/16), so its rules can't be keyed on it.";

    EXPECT_THAT(
        applyFor(
            bob,
            {{.number = 64, .rules = {{.remoteCIDR = "10.0.0/8"}}}, {65, "Far", "10.0.0.0/24"}}),
        ElementsAre("nil", report));

    const std::string log = contentOf(logPath);
    EXPECT_THAT(
        log,
        HasSubstr("Applied firewall. Enforcing 1 network for all users: Lab · 1 rule skipped\n"));
    EXPECT_THAT(log, EndsWith("Z applyFirewall failed: " + report + "\n"));
    EXPECT_THAT(contentOf(storePath), AllOf(HasSubstr("Lab"), Not(HasSubstr("Far"))));
}

TEST_F(ServiceFirewallTest, ChangesNothingForWhatIsNoListOfNetworks) {
    const Service service;
    ServiceClient bob(lab.client, firstUser);
    applyFor(bob, {{64}});
    const std::string before = contentOf(storePath) + contentOf(rulesetPath);

    const Texts reply = bob.call("ApplyFirewall", "ay", {"{\"networks\": []}"});

    ASSERT_EQ(reply.size(), 2U);
    EXPECT_EQ(reply[0], "nil");
    EXPECT_THAT(reply[1], StartsWith("Could not read the firewall policy: "));
    EXPECT_EQ(log().back(), "applyFirewall failed: " + reply[1]);
    EXPECT_EQ(contentOf(storePath) + contentOf(rulesetPath), before);
}

TEST_F(ServiceFirewallTest, StoresNothingThatPfRefuses) {
    const ScriptedPfctl pfctl = [] {
        ScriptedPfctl made;
        made.answer(ScriptedPfctl::load, "echo 'pfctl: Syntax error' >&2; exit 1");
        return made;
    }();
    const Service service;
    ServiceClient bob(lab.client, firstUser);

    EXPECT_THAT(
        applyFor(bob, {{64}}),
        ElementsAre("nil", "pfctl rejected the ruleset: pfctl: Syntax error"));

    EXPECT_THAT(
        log(),
        ElementsAre("applyFirewall failed: pfctl rejected the ruleset: pfctl: Syntax error"));
    EXPECT_FALSE(exists(storePath));
}

TEST_F(ServiceFirewallTest, FailsToRemoveWhatItCannotReload) {
    put(storePath,
        storeText(
            {{.key = "501", .networks = {{65, "Office"}}}, {.key = "502", .networks = {{64}}}}));
    const std::string before = contentOf(storePath);
    const Service service;
    ServiceClient bob(lab.client, firstUser);
    fs::remove("/sbin/pfctl");

    EXPECT_THAT(
        bob.call("RemoveFirewall"),
        ElementsAre("pfctl rejected the ruleset: The file “pfctl” doesn’t exist."));

    EXPECT_EQ(
        log().back(),
        "removeFirewall failed: pfctl rejected the ruleset: The file “pfctl” doesn’t exist.");
    EXPECT_EQ(contentOf(storePath), before);
}

TEST_F(ServiceFirewallTest, LeavesTheOldNetworksToWhomeverTheyBelong) {
    put(storePath, policyText({{64, "Old"}}));
    const Service service;
    ServiceClient ada(lab.client, administrator);

    EXPECT_THAT(
        applyFor(ada, {{65, "Office"}}),
        ElementsAre("Enforcing 1 network: Office · 1 more for other users of this Mac", "nil"));

    EXPECT_THAT(storedOwners(), ElementsAre("501", "legacy"));
    EXPECT_THAT(
        log(), ElementsAre("Applied firewall. Enforcing 2 networks for all users: Office, Old"));
}

TEST_F(ServiceFirewallTest, GivesTheOldNetworksToTheConsoleUser) {
    put(storePath, policyText({{64, "Old"}}));
    const Service service;
    ServiceClient bob(lab.client, firstUser);

    EXPECT_THAT(
        applyFor(bob, {}), ElementsAre("None of your networks has an enabled firewall.", "nil"));

    EXPECT_EQ(contentOf(storePath), "{\n  \"owners\" : {\n\n  }\n}");
    EXPECT_THAT(
        log(),
        ElementsAre("Applied firewall. No networks have an enabled firewall — the anchor is "
                    "empty."));
    EXPECT_EQ(listedRules(), "");
}

TEST_F(ServiceFirewallTest, GivesTheOldNetworksToWhomAppliesOneOfThem) {
    put(storePath, policyText({{64, "Old"}}));
    const Service service;
    ServiceClient ada(lab.client, administrator);

    EXPECT_THAT(applyFor(ada, {{64, "Old"}}), ElementsAre("Enforcing 1 network: Old", "nil"));

    EXPECT_THAT(storedOwners(), ElementsAre("501"));
}

TEST_F(ServiceFirewallTest, GivesTheOldNetworksToAnybodyWhileNobodyIsAtTheConsole) {
    for (const bool loginWindow : {true, false}) {
        put(storePath, policyText({{64, "Old"}}));
        if (loginWindow) {
            ServiceLab::showLoginWindow();
        } else {
            ServiceLab::setConsoleUser(std::nullopt);
        }
        const Service service;
        ServiceClient ada(lab.client, administrator);

        EXPECT_THAT(ada.call("RemoveFirewall"), ElementsAre("nil"));

        EXPECT_FALSE(exists(storePath));
    }
}

TEST_F(ServiceFirewallTest, ReportsWhatTheCommandLineReports) {
    const Service service;
    ServiceClient bob(lab.client, firstUser);
    const auto report = [&] { return bob.call("FirewallReport").at(0) + "\n"; };
    const auto withoutTime = [](const std::string& text) {
        return Pattern("for 0 days [0-9:]+|\\[[^\n]*\\]").replaceAll(text, "");
    };
    EXPECT_EQ(report(), run({helperProgram, "--status"}).output);

    applyFor(bob, {{64}});

    EXPECT_THAT(report(), HasSubstr("Status: Enabled for 0 days 00:00:0"));
    EXPECT_EQ(withoutTime(report()), withoutTime(run({helperProgram, "--status"}).output));
}

/// With real connections through the machine.
class ServiceStatesTest : public ServiceFirewallTest {
protected:
    void SetUp() override {
        ServiceFirewallTest::SetUp();
        if (!IsSkipped()) {
            buildOrSkip(machines);
        }
    }

    std::unique_ptr<NetworkLab> machines;
};

TEST_F(ServiceStatesTest, AChangeEndsTheConnectionsThatItNoLongerAllows) {
    const Service service;
    ServiceClient bob(lab.client, firstUser);
    ServiceClient ada(lab.client, administrator);
    const std::vector<NetworkText> open = {{.number = 64, .defaultInbound = "allow"}};
    const std::vector<NetworkText> closed = {{64}};
    const std::vector<NetworkText> office = {
        {.number = 65, .name = "Office", .defaultInbound = "allow"}};
    applyFor(bob, open);
    applyFor(ada, office);
    Question toLab = machines->established({.from = outside, .to = vm1, .port = 22});
    Question toOffice = machines->established({.from = outside, .to = vm3, .port = 22});

    applyFor(bob, open);
    EXPECT_TRUE(machines->stillPasses(toLab)) << "nothing has changed";

    applyFor(bob, closed);
    EXPECT_TRUE(machines->nowDrops(toLab));
    EXPECT_TRUE(machines->drops({.from = outside, .to = vm1, .port = 22}));
    EXPECT_TRUE(machines->stillPasses(toOffice)) << "another user's";

    bob.call("RemoveFirewall");
    EXPECT_TRUE(machines->passes({.from = outside, .to = vm1, .port = 22}));
    EXPECT_TRUE(machines->stillPasses(toOffice)) << "a removal ends none";
}

}  // namespace
}  // namespace tarnvale::test
