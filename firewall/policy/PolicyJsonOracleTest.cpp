// SPDX-License-Identifier: MIT
//
// Reads policy documents that were damaged at random, and compares the result with that of another
// JSON reader and a plain mapping of its values.

#include <algorithm>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "firewall/policy/PolicyJson.h"
#include "tests/support/Mutation.h"

namespace tarnvale::NetworkFirewall {
namespace {

using nlohmann::json;

const char* const document =
    R"([{"networkID":"6F1C2E0A-9B7D-4E53-8A21-0C5D9E7F1A2B","name":"Büro \"A\"\n",)"
    R"("subnetCIDR":"192.168.64.0\/24","gatewayIPv4":"192.168.64.1","dnsProxyEnabled":true,)"
    R"("policy":{"enabled":true,"defaultInbound":"deny","defaultOutbound":"allow","rules":[)"
    R"({"id":"0D9A4C11-3E52-4F7B-9C60-7B1E2A3D4C5F","enabled":true,"direction":"inbound",)"
    R"("action":"deny","proto":"udp","remoteCIDR":"any","ports":"53"},)"
    R"({"ports":"","remoteCIDR":"","proto":"icmp","enabled":false,"action":"allow",)"
    R"("direction":"outbound","id":"0d9a4c11-3e52-4f7b-9c60-7b1e2a3d4c5f"}]}},)"
    R"({"name":"😀","gatewayIPv4":null,"networkID":"00000000-0000-0000-0000-000000000000",)"
    R"("dnsProxyEnabled":false,"extra":[{"a":[1.5e3,null]}],"policy":{"rules":[],)"
    R"("defaultOutbound":"deny","defaultInbound":"allow","enabled":false},"subnetCIDR":""}])";

std::string text(const json& value) {
    return value.get_ref<const std::string&>();
}

bool flag(const json& value) {
    return value.get_ref<const json::boolean_t&>();
}

support::Uuid uuid(const json& value) {
    return support::Uuid::parse(text(value)).value();
}

template <class Cases>
auto word(const json& value, const Cases& cases) {
    for (const auto candidate : cases) {
        if (text(value) == rawValue(candidate)) {
            return candidate;
        }
    }
    throw std::invalid_argument("no such word");
}

FirewallRule ruleOf(const json& value) {
    return {
        .id = uuid(value.at("id")),
        .enabled = flag(value.at("enabled")),
        .direction = word(value.at("direction"), FirewallRule::allDirections),
        .action = word(value.at("action"), FirewallRule::allActions),
        .proto = word(value.at("proto"), FirewallRule::allProtos),
        .remoteCIDR = text(value.at("remoteCIDR")),
        .ports = text(value.at("ports"))};
}

FirewallNetworkPolicy networkOf(const json& value) {
    const json& policy = value.at("policy");
    const bool hasGateway = value.contains("gatewayIPv4") && !value["gatewayIPv4"].is_null();
    FirewallNetworkPolicy network{
        .networkID = uuid(value.at("networkID")),
        .name = text(value.at("name")),
        .subnetCIDR = text(value.at("subnetCIDR")),
        .gatewayIPv4 = hasGateway ? std::optional(text(value["gatewayIPv4"])) : std::nullopt,
        .dnsProxyEnabled = flag(value.at("dnsProxyEnabled")),
        .policy = {
            .enabled = flag(policy.at("enabled")),
            .defaultInbound = word(policy.at("defaultInbound"), FirewallRule::allActions),
            .defaultOutbound = word(policy.at("defaultOutbound"), FirewallRule::allActions),
            .rules = {}}};
    for (const json& item : policy.at("rules").get_ref<const json::array_t&>()) {
        network.policy.rules.push_back(ruleOf(item));
    }
    return network;
}

/// What the other reader makes of the text; nothing if that is not a list of networks.
std::optional<std::vector<FirewallNetworkPolicy>> oracle(const std::string& damaged) {
    try {
        const json parsed = json::parse(damaged);
        std::vector<FirewallNetworkPolicy> networks;
        for (const json& item : parsed.get_ref<const json::array_t&>()) {
            networks.push_back(networkOf(item));
        }
        return networks;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

/// Whether the readers may differ: the other one takes the last of equal keys, and ends at a NUL.
bool isBeyondTheOracle(const std::string& damaged) {
    bool isBeyond = damaged.find('\0') != std::string::npos;
    std::vector<std::set<std::string>> keys;
    const auto watch = [&](int /*depth*/, json::parse_event_t event, json& parsed) {
        if (event == json::parse_event_t::object_start) {
            keys.emplace_back();
        } else if (event == json::parse_event_t::object_end) {
            keys.pop_back();
        } else if (event == json::parse_event_t::key) {
            isBeyond |= !keys.back().insert(text(parsed)).second;
        }
        return true;
    };
    std::ignore = json::parse(damaged, watch, false);
    return isBeyond;
}

TEST(PolicyJsonOracleTest, ReadsWhatAnotherReaderReads) {
    std::mt19937_64 random(1);  // NOLINT(cert-msc51-cpp): every run tries the same
    ASSERT_EQ(decodePolicies(document), oracle(document));

    int read = 0;
    int refused = 0;
    for (int i = 0; i < 1'500; ++i) {
        const std::string damaged = test::mutated(document, random);
        if (isBeyondTheOracle(damaged)) {
            continue;
        }
        const auto expected = oracle(damaged);
        try {
            const auto policies = decodePolicies(damaged);
            ASSERT_EQ(policies, expected) << testing::PrintToString(damaged);
            ++read;
        } catch (const support::JsonError& error) {
            ASSERT_FALSE(expected) << error.what() << "\n" << testing::PrintToString(damaged);
            ++refused;
        }
    }
    EXPECT_GT(read, 25);
    EXPECT_GT(refused, 750);
}

}  // namespace
}  // namespace tarnvale::NetworkFirewall
