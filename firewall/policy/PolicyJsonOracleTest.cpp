// SPDX-License-Identifier: MIT
//
// Reads policy documents that were damaged at random, and compares the result with that of another
// JSON reader and a plain mapping of its values.

#include <optional>
#include <random>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "firewall/policy/PolicyJson.h"
#include "tests/support/JsonOracle.h"
#include "tests/support/Mutation.h"
#include "tests/support/PolicyOracle.h"

namespace tarnvale::NetworkFirewall {
namespace {

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

TEST(PolicyJsonOracleTest, ReadsWhatAnotherReaderReads) {
    std::mt19937_64 random(1);  // NOLINT(cert-msc51-cpp): every run tries the same
    ASSERT_EQ(decodePolicies(document), test::policiesByOracle(test::jsonVerdict(document).value));

    int read = 0;
    int refused = 0;
    for (int i = 0; i < 1'500; ++i) {
        const std::string damaged = test::mutated(document, random);
        const test::JsonVerdict verdict = test::jsonVerdict(damaged);
        if (verdict.isTooLargeForIt || verdict.hasDuplicateKeys) {
            continue;
        }
        const auto expected =
            verdict.ourReaderTakes ? test::policiesByOracle(verdict.value) : std::nullopt;
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
