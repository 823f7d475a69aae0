// SPDX-License-Identifier: MIT

#include "firewall/policy/PolicyJson.h"

#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/JsonWriter.h"

namespace tarnvale::NetworkFirewall {
namespace {

using support::JsonError;
using support::JsonForm;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::ThrowsMessage;

const char* const ruleText =
    R"({"id":"0D9A4C11-3E52-4F7B-9C60-7B1E2A3D4C5F","enabled":true,"direction":"outbound",)"
    R"("action":"deny","proto":"udp","remoteCIDR":" 10.0.0.0\/8","ports":"53 "})";
std::string networkText() {
    return R"({"networkID":"6f1c2e0a-9b7d-4e53-8a21-0c5d9e7f1a2b","name":"Büro \"A\"\n",)"
           R"("subnetCIDR":"192.168.64.0\/24 ","gatewayIPv4":"192.168.64.1","dnsProxyEnabled":true,)"
           R"("policy":{"enabled":true,"defaultInbound":"deny","defaultOutbound":"allow","rules":[)" +
           std::string(ruleText) + "]}}";
}

/// The text with the first occurrence of a part replaced.
std::string replaced(std::string text, const std::string& part, const std::string& by) {
    return text.replace(text.find(part), part.size(), by);
}

void expectError(const std::string& json, const std::string& message) {
    EXPECT_THAT([&] { decodePolicies(json); }, ThrowsMessage<JsonError>(message)) << json;
}

TEST(PolicyJsonTest, ReadsEveryFieldAsItWasSent) {
    const FirewallNetworkPolicy expected{
        .networkID = support::Uuid::parse("6F1C2E0A-9B7D-4E53-8A21-0C5D9E7F1A2B").value(),
        .name = "Büro \"A\"\n",
        .subnetCIDR = "192.168.64.0/24 ",
        .gatewayIPv4 = "192.168.64.1",
        .dnsProxyEnabled = true,
        .policy = {
            .enabled = true,
            .defaultInbound = FirewallRule::Action::deny,
            .defaultOutbound = FirewallRule::Action::allow,
            .rules = {
                {.id = support::Uuid::parse("0D9A4C11-3E52-4F7B-9C60-7B1E2A3D4C5F").value(),
                 .enabled = true,
                 .direction = FirewallRule::Direction::outbound,
                 .action = FirewallRule::Action::deny,
                 .proto = FirewallRule::Proto::udp,
                 .remoteCIDR = " 10.0.0.0/8",
                 .ports = "53 "}}}};

    EXPECT_THAT(decodePolicies("[" + networkText() + "]"), ElementsAre(expected));
    EXPECT_THAT(
        decodePolicies("[" + networkText() + ",\n" + networkText() + "]\n"),
        ElementsAre(expected, expected));
}

TEST(PolicyJsonTest, AnEmptyArrayMeansNoNetworks) {
    EXPECT_THAT(decodePolicies("[]"), IsEmpty());
    EXPECT_THAT(decodePolicies(" [ ] "), IsEmpty());
}

TEST(PolicyJsonTest, WhatItWritesReadsBackEqual) {
    const auto policies = decodePolicies("[" + networkText() + "," + networkText() + "]");

    EXPECT_EQ(decodePolicies(support::encodeJson(policies, JsonForm::compact)), policies);
    EXPECT_EQ(decodePolicies(support::encodeJson(policies, JsonForm::pretty)), policies);
}

TEST(PolicyJsonTest, AMissingGatewayIsAbsentAndIsNotWritten) {
    const std::string without =
        replaced("[" + networkText() + "]", R"("gatewayIPv4":"192.168.64.1",)", "");
    const std::string null = replaced("[" + networkText() + "]", R"("192.168.64.1")", "null");

    EXPECT_EQ(decodePolicies(without).at(0).gatewayIPv4, std::nullopt);
    EXPECT_EQ(decodePolicies(null), decodePolicies(without));
    EXPECT_THAT(
        support::encodeJson(decodePolicies(without), JsonForm::compact),
        testing::Not(testing::HasSubstr("gatewayIPv4")));
    expectError(
        replaced("[" + networkText() + "]", R"("192.168.64.1")", "1"),
        "expected a string at [0].gatewayIPv4, found 1");
}

TEST(PolicyJsonTest, ReadsARuleForIcmpWithoutPorts) {
    const std::string icmp =
        replaced(replaced("[" + networkText() + "]", "\"udp\"", "\"icmp\""), "\"53 \"", "\"\"");

    const auto policies = decodePolicies(icmp);

    ASSERT_EQ(policies.at(0).policy.rules.size(), 1U);
    EXPECT_EQ(policies[0].policy.rules[0].proto, FirewallRule::Proto::icmp);
    EXPECT_EQ(policies[0].policy.rules[0].ports, "");
}

TEST(PolicyJsonTest, RefusesOtherWordsForAnEnumeration) {
    for (const std::string word : {R"("ICMP")", R"("gre")", R"("")", R"("udp ")", "17", "null"}) {
        expectError(
            replaced("[" + networkText() + "]", "\"udp\"", word),
            R"(expected "any", "tcp", "udp" or "icmp" at [0].policy.rules[0].proto, found )" +
                word);
    }
    expectError(
        replaced("[" + networkText() + "]", "\"outbound\"", "\"Outbound\""),
        R"(expected "inbound" or "outbound" at [0].policy.rules[0].direction, found "Outbound")");
    expectError(
        replaced("[" + networkText() + "]", R"("action":"deny")", R"("action":"block")"),
        R"(expected "allow" or "deny" at [0].policy.rules[0].action, found "block")");
    expectError(
        replaced(
            "[" + networkText() + "]", R"("defaultInbound":"deny")", R"("defaultInbound":true)"),
        R"(expected "allow" or "deny" at [0].policy.defaultInbound, found true)");
}

TEST(PolicyJsonTest, RefusesEveryMissingKey) {
    const std::string policy = networkText().substr(networkText().find(R"(,"policy")"));
    for (const auto& [member, rest, problem] :
         std::vector<std::tuple<std::string, std::string, std::string>>{
             {R"("networkID":"6f1c2e0a-9b7d-4e53-8a21-0c5d9e7f1a2b",)",
              "",
              R"("networkID" at [1])"},
             {R"("name":"Büro \"A\"\n",)", "", R"("name" at [1])"},
             {R"("subnetCIDR":"192.168.64.0\/24 ",)", "", R"("subnetCIDR" at [1])"},
             {R"("dnsProxyEnabled":true,)", "", R"("dnsProxyEnabled" at [1])"},
             {policy, "}", R"("policy" at [1])"},
             {R"({"enabled":true,)", "{", R"("enabled" at [1].policy)"},
             {R"("defaultInbound":"deny",)", "", R"("defaultInbound" at [1].policy)"},
             {R"("defaultOutbound":"allow",)", "", R"("defaultOutbound" at [1].policy)"},
             {R"(,"rules":[)" + std::string(ruleText) + "]", "", R"("rules" at [1].policy)"},
             {R"("id":"0D9A4C11-3E52-4F7B-9C60-7B1E2A3D4C5F",)",
              "",
              R"("id" at [1].policy.rules[0])"},
             {R"("enabled":true,"direction")",
              R"("direction")",
              R"("enabled" at [1].policy.rules[0])"},
             {R"("direction":"outbound",)", "", R"("direction" at [1].policy.rules[0])"},
             {R"("action":"deny",)", "", R"("action" at [1].policy.rules[0])"},
             {R"("proto":"udp",)", "", R"("proto" at [1].policy.rules[0])"},
             {R"("remoteCIDR":" 10.0.0.0\/8",)", "", R"("remoteCIDR" at [1].policy.rules[0])"},
             {R"(,"ports":"53 ")", "", R"("ports" at [1].policy.rules[0])"}}) {
        expectError(
            "[" + networkText() + "," + replaced(networkText(), member, rest) + "]",
            "missing key " + problem);
    }
}

TEST(PolicyJsonTest, RefusesEveryWrongType) {
    for (const auto& [value, wrong, problem] :
         std::vector<std::tuple<std::string, std::string, std::string>>{
             {R"("6f1c2e0a-9b7d-4e53-8a21-0c5d9e7f1a2b")",
              R"("6f1c2e0a")",
              R"(expected a UUID at [0].networkID, found "6f1c2e0a")"},
             {R"("Büro \"A\"\n")", "7", "expected a string at [0].name, found 7"},
             {R"("192.168.64.0\/24 ")", "null", "expected a string at [0].subnetCIDR, found null"},
             {R"("dnsProxyEnabled":true)",
              R"("dnsProxyEnabled":1)",
              "expected true or false at [0].dnsProxyEnabled, found 1"},
             {R"("enabled":true,"def)",
              R"("enabled":"true","def)",
              R"(expected true or false at [0].policy.enabled, found "true")"},
             {"[" + std::string(ruleText) + "]",
              "{}",
              "expected an array at [0].policy.rules, found an object"},
             {ruleText, "[]", "expected an object at [0].policy.rules[0], found an array"},
             {R"("53 ")", "53", "expected a string at [0].policy.rules[0].ports, found 53"},
             {R"(" 10.0.0.0\/8")",
              "[]",
              "expected a string at [0].policy.rules[0].remoteCIDR, found an array"}}) {
        expectError(replaced("[" + networkText() + "]", value, wrong), problem);
    }
}

TEST(PolicyJsonTest, RefusesAnythingButAnArrayOfNetworks) {
    expectError("", "expected a value, found the end at line 1, column 1");
    expectError("null", "expected an array at the top level, found null");
    expectError(networkText(), "expected an array at the top level, found an object");
    expectError("[null]", "expected an object at [0], found null");
    expectError("[[]]", "expected an object at [0], found an array");
    // The "ü" is two bytes but one column.
    const std::string column = std::to_string(networkText().size() + 2);
    expectError(
        "[" + networkText() + ",]", R"(expected a value, found "]" at line 1, column )" + column);
    expectError(
        "[" + networkText() + "]]", R"(expected the end, found "]" at line 1, column )" + column);
    EXPECT_THROW(decodePolicies(std::string(100'000, '[')), JsonError);
}

}  // namespace
}  // namespace tarnvale::NetworkFirewall
