// SPDX-License-Identifier: MIT

#include "firewall/policy/PolicyStore.h"

#include <algorithm>
#include <limits>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/Json.h"

namespace tarnvale::NetworkFirewall {
namespace {

using support::JsonError;
using support::ReferenceDate;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Key;
using testing::Optional;
using testing::Pair;
using testing::ThrowsMessage;
using Policies = std::vector<FirewallNetworkPolicy>;

constexpr ReferenceDate now{763636013.25};

FirewallNetworkPolicy network(std::uint8_t number, const std::string& name = "Lab") {
    return {
        .networkID = {{number}},
        .name = name,
        .subnetCIDR = "192.168." + std::to_string(number) + ".0/24",
        .gatewayIPv4 = {},
        .dnsProxyEnabled = false,
        .policy = {}};
}

constexpr std::string_view workedStore = R"({
  "owners" : {
    "501" : {
      "appliedAt" : 763636013.25,
      "policies" : [
        {
          "dnsProxyEnabled" : true,
          "gatewayIPv4" : "192.168.64.1",
          "name" : "Büro \"A\"",
          "networkID" : "6F1C2E0A-9B7D-4E53-8A21-0C5D9E7F1A2B",
          "policy" : {
            "defaultInbound" : "deny",
            "defaultOutbound" : "allow",
            "enabled" : true,
            "rules" : [
              {
                "action" : "allow",
                "direction" : "inbound",
                "enabled" : true,
                "id" : "0D9A4C11-3E52-4F7B-9C60-7B1E2A3D4C5F",
                "ports" : "22",
                "proto" : "tcp",
                "remoteCIDR" : "10.0.0.0\/8"
              }
            ]
          },
          "subnetCIDR" : "192.168.64.0\/24"
        }
      ]
    },
    "legacy" : {
      "appliedAt" : -63114076800,
      "policies" : [
        {
          "dnsProxyEnabled" : false,
          "name" : "Lab",
          "networkID" : "A3B5C7D9-1122-4344-9566-778899AABBCC",
          "policy" : {
            "defaultInbound" : "allow",
            "defaultOutbound" : "allow",
            "enabled" : false,
            "rules" : [

            ]
          },
          "subnetCIDR" : "192.168.65.0\/24"
        }
      ]
    }
  }
})";

PolicyStore workedRecords() {
    PolicyStore store;
    store.owners["501"] = {
        .policies =
            {{.networkID = support::Uuid::parse("6F1C2E0A-9B7D-4E53-8A21-0C5D9E7F1A2B").value(),
              .name = "Büro \"A\"",
              .subnetCIDR = "192.168.64.0/24",
              .gatewayIPv4 = "192.168.64.1",
              .dnsProxyEnabled = true,
              .policy =
                  {.enabled = true,
                   .defaultInbound = FirewallRule::Action::deny,
                   .defaultOutbound = FirewallRule::Action::allow,
                   .rules =
                       {{.id = support::Uuid::parse("0D9A4C11-3E52-4F7B-9C60-7B1E2A3D4C5F").value(),
                         .enabled = true,
                         .direction = FirewallRule::Direction::inbound,
                         .action = FirewallRule::Action::allow,
                         .proto = FirewallRule::Proto::tcp,
                         .remoteCIDR = "10.0.0.0/8",
                         .ports = "22"}}}}},
        .appliedAt = now};
    store.owners["legacy"] = {
        .policies =
            {{.networkID = support::Uuid::parse("A3B5C7D9-1122-4344-9566-778899AABBCC").value(),
              .name = "Lab",
              .subnetCIDR = "192.168.65.0/24",
              .gatewayIPv4 = {},
              .dnsProxyEnabled = false,
              .policy = {}}},
        .appliedAt = ReferenceDate::distantPast()};
    return store;
}

// The file

TEST(PolicyStoreTest, WritesExactlyTheFormOfTheFile) {
    ASSERT_EQ(workedStore.size(), 1310U);
    EXPECT_EQ(encodeStore(workedRecords()), workedStore);
}

TEST(PolicyStoreTest, ReadsTheFormOfTheFile) {
    EXPECT_THAT(decodeStore(workedStore), Optional(workedRecords()));
}

TEST(PolicyStoreTest, AStoreWithoutOwnersIsAnEmptyObject) {
    const std::string text = "{\n  \"owners\" : {\n\n  }\n}";
    EXPECT_EQ(encodeStore({}), text);
    EXPECT_THAT(decodeStore(text), Optional(PolicyStore()));
}

TEST(PolicyStoreTest, WritesOwnersInTheOrderOfTheirBytes) {
    PolicyStore store;
    for (const char* const owner : {"501", "1000", "legacy", "502", "99"}) {
        store.owners[owner].appliedAt = {1};
    }

    const std::string text = encodeStore(store);

    std::vector<std::size_t> places;
    for (const char* const owner : {"1000", "501", "502", "99", "legacy"}) {
        places.push_back(text.find("\"" + std::string(owner) + "\" : {"));
    }
    EXPECT_TRUE(std::ranges::is_sorted(places));
    EXPECT_LT(places.back(), text.size());
}

TEST(PolicyStoreTest, RefusesToWriteADateThatIsNoNumber) {
    PolicyStore store;
    store.owners["501"].appliedAt = {std::numeric_limits<double>::quiet_NaN()};
    EXPECT_THAT(
        [&] { encodeStore(store); },
        ThrowsMessage<JsonError>("JSON has no form for a number that is not finite"));
}

TEST(PolicyStoreTest, ReadsTheFormBeforeUsersAsTheLegacyOwner) {
    const auto store = decodeStore(
        R"( [{"networkID":"01000000-0000-0000-0000-000000000000","name":"Lab",)"
        R"("subnetCIDR":"192.168.1.0/24","dnsProxyEnabled":false,"policy":{"enabled":false,)"
        R"("defaultInbound":"allow","defaultOutbound":"allow","rules":[]}},)"
        R"({"networkID":"02000000-0000-0000-0000-000000000000","name":"Lab",)"
        R"("subnetCIDR":"192.168.2.0/24","dnsProxyEnabled":false,"policy":{"enabled":false,)"
        R"("defaultInbound":"allow","defaultOutbound":"allow","rules":[]}}])");

    ASSERT_TRUE(store);
    EXPECT_THAT(
        store->owners,
        ElementsAre(Pair("legacy", Entry{{network(1), network(2)}, ReferenceDate::distantPast()})));
}

TEST(PolicyStoreTest, ReadsAnEmptyArrayAsTheEmptyStore) {
    EXPECT_THAT(decodeStore("[]"), Optional(PolicyStore()));
    EXPECT_THAT(decodeStore("\xEF\xBB\xBF\n[\n]\n"), Optional(PolicyStore()));
}

TEST(PolicyStoreTest, KeepsOwnerKeysAsTheyAre) {
    const auto store = decodeStore(
        R"({"owners":{"0501":{"policies":[],"appliedAt":1},"":{"policies":[],"appliedAt":2},)"
        R"("a\/\u00e9":{"policies":[],"appliedAt":3}}})");

    ASSERT_TRUE(store);
    EXPECT_THAT(store->owners, ElementsAre(Key(""), Key("0501"), Key("a/é")));
    EXPECT_EQ(decodeStore(encodeStore(*store)), store);
}

TEST(PolicyStoreTest, IgnoresWhatItDoesNotKnow) {
    EXPECT_THAT(
        decodeStore(R"({"version":2,"owners":{},"x":[{"owners":1}]})"), Optional(PolicyStore()));
}

TEST(PolicyStoreTest, ReadsNothingElse) {
    for (const char* const data :
         {"",
          " ",
          "{}",
          "null",
          "true",
          "\"owners\"",
          R"({"owners":null})",
          R"({"owners":[]})",
          R"({"owners":{"501":[]}})",
          R"({"owners":{"501":{"policies":[]}}})",
          R"({"owners":{"501":{"appliedAt":1}}})",
          R"({"owners":{"501":{"policies":[],"appliedAt":"1"}}})",
          R"({"owners":{"501":{"policies":[],"appliedAt":null}}})",
          R"({"owners":{"501":{"policies":[],"appliedAt":1e999}}})",
          R"({"owners":{"501":{"policies":[{}],"appliedAt":1}}})",
          R"({"owners":{}}x)",
          R"({"owners":{},})",
          "[{}]",
          "[1]",
          "[],",
          "[[]]"}) {
        EXPECT_EQ(decodeStore(data), std::nullopt) << data;
    }
}

TEST(PolicyStoreTest, ReadsNoTruncatedFile) {
    for (std::size_t length = 0; length < workedStore.size(); ++length) {
        EXPECT_EQ(decodeStore(workedStore.substr(0, length)), std::nullopt) << length;
    }
}

// Changing it

TEST(PolicyStoreTest, KeepsTheListUnderItsOwner) {
    PolicyStore store;

    const Policies first = setPolicies(store, "501", {network(1)}, {1}, false);
    const Policies second = setPolicies(store, "501", {network(2), network(1)}, {2}, false);
    setPolicies(store, "502", {network(3)}, {3}, false);

    EXPECT_THAT(first, IsEmpty());
    EXPECT_THAT(second, ElementsAre(network(1)));
    EXPECT_THAT(
        store.owners,
        ElementsAre(
            Pair("501", Entry{{network(2), network(1)}, {2}}),
            Pair("502", Entry{{network(3)}, {3}})));
}

TEST(PolicyStoreTest, AnEmptyListRemovesTheOwner) {
    PolicyStore store;
    setPolicies(store, "501", {network(1)}, {1}, false);
    setPolicies(store, "502", {network(2)}, {2}, false);

    EXPECT_THAT(setPolicies(store, "501", {}, {3}, false), ElementsAre(network(1)));
    EXPECT_THAT(store.owners, ElementsAre(Key("502")));
    EXPECT_THAT(setPolicies(store, "503", {}, {3}, false), IsEmpty());
    EXPECT_THAT(store.owners, ElementsAre(Key("502")));
}

class PolicyStoreLegacyTest : public testing::Test {
protected:
    PolicyStore store{
        {{"legacy", Entry{{network(1, "old"), network(2, "old")}, ReferenceDate::distantPast()}}}};
};

TEST_F(PolicyStoreLegacyTest, StaysWhenAnotherUserAppliesOtherNetworks) {
    const Policies previous = setPolicies(store, "502", {network(3)}, now, false);

    EXPECT_THAT(previous, IsEmpty());
    EXPECT_THAT(store.owners, ElementsAre(Key("502"), Key("legacy")));
}

TEST_F(PolicyStoreLegacyTest, StaysWhenAnotherUserAppliesNothing) {
    EXPECT_THAT(setPolicies(store, "502", {}, now, false), IsEmpty());
    EXPECT_THAT(store.owners, ElementsAre(Key("legacy")));
}

TEST_F(PolicyStoreLegacyTest, IsAdoptedByTheConsoleUserWhateverIsApplied) {
    const Policies previous = setPolicies(store, "501", {network(3)}, now, true);

    EXPECT_THAT(previous, ElementsAre(network(1, "old"), network(2, "old")));
    EXPECT_THAT(store.owners, ElementsAre(Pair("501", Entry{{network(3)}, now})));
}

TEST_F(PolicyStoreLegacyTest, IsDroppedWhenTheConsoleUserAppliesNothing) {
    EXPECT_THAT(
        setPolicies(store, "501", {}, now, true),
        ElementsAre(network(1, "old"), network(2, "old")));
    EXPECT_THAT(store.owners, IsEmpty());
}

TEST_F(PolicyStoreLegacyTest, IsAdoptedByAnyUserWhoAppliesOneOfItsNetworks) {
    const Policies previous = setPolicies(store, "502", {network(3), network(2)}, now, false);

    EXPECT_THAT(previous, ElementsAre(network(1, "old"), network(2, "old")));
    EXPECT_THAT(store.owners, ElementsAre(Pair("502", Entry{{network(3), network(2)}, now})));
}

TEST_F(PolicyStoreLegacyTest, IsNotThePreviousListOfAnOwnerWithAnEntry) {
    store.owners["501"] = {{network(5)}, {1}};
    store.owners["502"] = {{}, {1}};

    EXPECT_THAT(setPolicies(store, "501", {network(6)}, now, true), ElementsAre(network(5)));
    EXPECT_THAT(store.owners, ElementsAre(Key("501"), Key("502")));

    store.owners["legacy"] = {{network(1)}, ReferenceDate::distantPast()};
    EXPECT_THAT(setPolicies(store, "502", {network(6)}, now, true), IsEmpty());
    EXPECT_THAT(store.owners, ElementsAre(Key("501"), Key("502")));
}

// Comparing

TEST(PolicyStoreTest, TheSameNetworksInAnotherOrderAreTheSame) {
    EXPECT_TRUE(samePolicies({}, {}));
    EXPECT_TRUE(
        samePolicies({network(1), network(2), network(3)}, {network(3), network(1), network(2)}));
}

TEST(PolicyStoreTest, AnyChangeOfAnyFieldIsAnotherList) {
    const auto changed = [](auto change) {
        Policies policies{network(2), network(1)};
        change(policies);
        return policies;
    };
    const Policies policies{network(1), network(2)};

    EXPECT_FALSE(samePolicies(policies, changed([](auto& p) { p.pop_back(); })));
    EXPECT_FALSE(samePolicies(policies, changed([](auto& p) { p.push_back(p[0]); })));
    EXPECT_FALSE(samePolicies(policies, changed([](auto& p) { p[0].networkID = {{9}}; })));
    EXPECT_FALSE(samePolicies(policies, changed([](auto& p) { p[1].name += " "; })));
    EXPECT_FALSE(samePolicies(policies, changed([](auto& p) { p[0].gatewayIPv4 = ""; })));
    EXPECT_FALSE(samePolicies(policies, changed([](auto& p) { p[0].policy.enabled = true; })));
    EXPECT_FALSE(samePolicies(policies, changed([](auto& p) { p[0].policy.rules.resize(1); })));
}

TEST(PolicyStoreTest, TheOrderOfRulesAndOfEqualIDsCounts) {
    Policies a{network(1)};
    a[0].policy.rules.resize(2);
    a[0].policy.rules[1].ports = "22";
    Policies b = a;
    std::swap(b[0].policy.rules[0], b[0].policy.rules[1]);

    EXPECT_FALSE(samePolicies(a, b));
    EXPECT_FALSE(
        samePolicies({network(1, "a"), network(1, "b")}, {network(1, "b"), network(1, "a")}));
    EXPECT_TRUE(samePolicies(
        {network(2), network(1, "a"), network(1, "b")},
        {network(1, "a"), network(2), network(1, "b")}));
}

TEST(PolicyStoreTest, CountsTheNetworksOfAllOtherOwners) {
    PolicyStore store;
    store.owners["501"].policies = {network(1), network(2)};
    store.owners["502"].policies = {network(3)};
    store.owners["legacy"].policies = {network(4), network(5), network(6)};

    EXPECT_EQ(otherUsersNetworkCount(store, 501), 4U);
    EXPECT_EQ(otherUsersNetworkCount(store, 502), 5U);
    EXPECT_EQ(otherUsersNetworkCount(store, 50), 6U);
    EXPECT_EQ(otherUsersNetworkCount({}, 501), 0U);
}

}  // namespace
}  // namespace tarnvale::NetworkFirewall
