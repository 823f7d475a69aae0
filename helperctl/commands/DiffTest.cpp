// SPDX-License-Identifier: MIT

#include "helperctl/commands/Diff.h"

#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "firewall/policy/PolicyJson.h"
#include "firewall/policy/PolicyStore.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/JsonSchema.h"
#include "tests/support/PolicyText.h"

namespace tarnvale::helperctl {
namespace {

using NetworkFirewall::FirewallNetworkPolicy;
using NetworkFirewall::FirewallRule;
using testing::ElementsAre;

std::string pathOf(const std::string& example) {
    return TARNVALE_SOURCE_DIR "/examples/" + example + ".json";
}

std::vector<FirewallNetworkPolicy> policiesOf(const std::string& name) {
    return NetworkFirewall::decodePolicies(test::contentOf(pathOf(name)));
}

TEST(DiffTest, FindsNothingWhereNothingChanges) {
    EXPECT_TRUE(difference(policiesOf("lab"), policiesOf("lab"), {}).isEmpty());
    EXPECT_TRUE(difference({}, {}, {}).isEmpty());
}

TEST(DiffTest, SaysWhatOneRuleMoreChanges) {
    const auto before = policiesOf("lab");
    auto now = before;
    now[0].policy.rules.insert(
        now[0].policy.rules.begin(),
        {.id = {},
         .enabled = true,
         .direction = FirewallRule::Direction::inbound,
         .action = FirewallRule::Action::allow,
         .proto = FirewallRule::Proto::tcp,
         .remoteCIDR = "any",
         .ports = "80"});

    const auto found = difference(before, now, {});

    EXPECT_THAT(found.records, ElementsAre("Lab, rule 1 is new: inbound, allow tcp 80"));
    EXPECT_THAT(
        found.lines,
        ElementsAre("+ pass out quick proto tcp from any to 192.168.64.0/24 port 80 keep state"));
    EXPECT_THAT(
        found.packets,
        ElementsAre("tcp 80 from anywhere to Lab: blocked -> passed, by rule 1 (allow tcp 80); "
                    "before by the default for inbound traffic"));
    EXPECT_THAT(found.cut, ElementsAre("192.168.64.0/24"));
}

TEST(DiffTest, SaysWhatChangesInTheRecords) {
    const auto before = policiesOf("lab");
    auto now = before;
    now[0].name = "Laboratory";
    now[0].gatewayIPv4.reset();
    now[0].dnsProxyEnabled = false;
    now[0].policy.defaultInbound = FirewallRule::Action::allow;
    now[0].policy.rules[0].ports = "2222";
    std::swap(now[0].policy.rules[0], now[0].policy.rules[1]);

    EXPECT_THAT(
        difference(before, now, {}).records,
        ElementsAre(
            "Laboratory, its name: Lab -> Laboratory",
            "Laboratory, its gateway: 192.168.64.1 -> none",
            "Laboratory, the DNS proxy: on -> off",
            "Laboratory, the default for inbound traffic: deny -> allow",
            "Laboratory, rule 2: inbound, allow tcp 22 -> inbound, allow tcp 2222",
            "Laboratory, its rules have another order"));
    now[0].policy.rules.erase(now[0].policy.rules.begin());
    now[0].policy.rules[0] = before[0].policy.rules[0];
    EXPECT_THAT(
        difference(policiesOf("lab"), now, {}).records,
        testing::Contains("Laboratory, rule 2 is gone: outbound, deny 10.0.0.0/8"));
}

TEST(DiffTest, SaysWhatANetworkThatComesOrGoesChanges) {
    const auto coming = difference(policiesOf("lab"), policiesOf("isolated"), {});

    EXPECT_THAT(
        coming.records,
        ElementsAre("Isolated is new: 192.168.65.0/24", "Lab is gone: 192.168.64.0/24"));
    EXPECT_THAT(coming.cut, ElementsAre("192.168.65.0/24"));
    EXPECT_THAT(
        coming.packets,
        ElementsAre(
            "tcp and udp (all ports but 53) (without DHCP) from Isolated to 192.168.65.1: passed "
            "-> "
            "blocked, by the default for outbound traffic; before by no line at all",
            "icmp and other protocols from Isolated to 192.168.65.1: passed -> blocked, by the "
            "default for outbound traffic; before by no line at all",
            "everything but DHCP from Isolated to anywhere but 192.168.65.1: passed -> blocked, by "
            "the default for outbound traffic; before by no line at all",
            "everything but DHCP from anywhere to Isolated: passed -> blocked, by the default for "
            "inbound traffic; before by no line at all",
            "everything but DHCP from Lab to 10.0.0.0/8: blocked -> passed, by no line at all; "
            "before by rule 2 (deny 10.0.0.0/8)",
            "tcp (all ports but 22) from anywhere to Lab: blocked -> passed, by no line at all; "
            "before by the default for inbound traffic",
            "udp, icmp and other protocols (without DHCP) from anywhere to Lab: blocked -> passed, "
            "by no line at all; before by the default for inbound traffic"));
}

NetworkFirewall::PolicyStore storeOf(const std::vector<test::OwnerText>& owners) {
    return NetworkFirewall::decodeStore(test::storeText(owners)).value();
}

std::vector<FirewallNetworkPolicy> listOf(const std::vector<test::NetworkText>& networks) {
    return NetworkFirewall::decodePolicies(test::policyText(networks));
}

TEST(DiffTest, ComparesOneUsersListBesideThoseOfOthers) {
    const test::NetworkText lab;
    const auto store =
        storeOf({{.key = "501", .networks = {lab}}, {.key = "502", .networks = {{.number = 65}}}});

    EXPECT_TRUE(differenceFromStored(store, "501", listOf({lab}), {}).isEmpty());

    const auto gone = differenceFromStored(store, "501", {}, {});
    EXPECT_THAT(gone.records, ElementsAre("Lab is gone: 192.168.64.0/24"));
    EXPECT_THAT(gone.lines, testing::Each(testing::HasSubstr("192.168.64.0/24")));
    EXPECT_THAT(gone.cut, testing::IsEmpty());

    const auto coming =
        differenceFromStored(store, "0", listOf({{.number = 66, .name = "New"}}), {});
    EXPECT_THAT(coming.records, ElementsAre("New is new: 192.168.66.0/24"));
    EXPECT_THAT(coming.lines, testing::Each(testing::HasSubstr("192.168.66.0/24")));
    EXPECT_THAT(coming.cut, ElementsAre("192.168.66.0/24"));
}

TEST(DiffTest, SaysWhatOthersLoseAndWhatIsRefused) {
    const auto store = storeOf({{.key = "501", .networks = {{}}}});

    const auto found = differenceFromStored(
        store,
        "502",
        listOf({{.name = "Mine", .defaultInbound = "allow"}, {.name = "No", .subnetCIDR = "x"}}),
        {});

    EXPECT_THAT(
        found.records,
        ElementsAre(
            "Mine is new: 192.168.64.0/24",
            testing::StartsWith("No is refused: the subnet \"x\" isn't one macOS gives"),
            "192.168.64.0/24 is claimed by networks of more than one user; uid 501's \"Lab\" is "
            "left out for the most recently applied one."));
    EXPECT_THAT(
        found.lines,
        ElementsAre(
            "- block drop out quick from any to 192.168.64.0/24",
            "+ pass out quick from any to 192.168.64.0/24 keep state"));
}

struct PrintedDifference {
    int status = 0;
    std::string output;
};

PrintedDifference printed(const std::string& file, const std::string& other, Format format) {
    std::ostringstream output;
    std::ostringstream errors;
    Console console{.output = output, .errors = errors, .format = format};
    Arguments arguments;
    arguments.file = pathOf(file);
    arguments.otherFile = pathOf(other);
    const int status = diff({.arguments = arguments, .connect = nullptr, .console = console});
    EXPECT_EQ(errors.str(), "");
    return {.status = status, .output = output.str()};
}

TEST(DiffTest, PrintsWhatPeopleRead) {
    const auto text = printed("lab", "open-lab", Format::text);

    EXPECT_EQ(text.status, 0);
    EXPECT_EQ(
        text.output,
        "Records\n"
        "  Open lab is new: 192.168.64.0/24\n"
        "  Lab is gone: 192.168.64.0/24\n"
        "Lines\n"
        "  - pass out quick proto tcp from any to 192.168.64.0/24 port 22 keep state\n"
        "  - block drop in quick from 192.168.64.0/24 to 10.0.0.0/8\n"
        "  - block drop out quick from any to 192.168.64.0/24\n"
        "  + pass out quick from any to 192.168.64.0/24 keep state\n"
        "Packets\n"
        "  everything but DHCP from Open lab to 10.0.0.0/8: blocked -> passed, by the\n"
        "    default for outbound traffic; before by rule 2 (deny 10.0.0.0/8)\n"
        "  tcp (all ports but 22) from anywhere to Open lab: blocked -> passed, by the\n"
        "    default for inbound traffic; before by the default for inbound traffic\n"
        "  udp, icmp and other protocols (without DHCP) from anywhere to Open lab:\n"
        "    blocked -> passed, by the default for inbound traffic; before by the default\n"
        "    for inbound traffic\n"
        "Connections\n"
        "  An apply cuts all connections of 192.168.64.0/24.\n");
    EXPECT_EQ(printed("lab", "lab", Format::text).output, "Nothing changes.\n");
}

TEST(DiffTest, PrintsJsonOfItsSchema) {
    for (const char* other : {"lab", "isolated", "web-server"}) {
        const auto json = printed("lab", other, Format::json);

        EXPECT_EQ(test::judgedBySchema("helperctl", json.output), "yes") << json.output;
    }
}

}  // namespace
}  // namespace tarnvale::helperctl
