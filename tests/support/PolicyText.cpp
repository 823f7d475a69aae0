// SPDX-License-Identifier: MIT

#include "tests/support/PolicyText.h"

#include <string_view>

namespace tarnvale::test {
namespace {

const char* word(bool value) {
    return value ? "true" : "false";
}

/// The texts of all parts, with commas between.
template <class Part>
std::string joined(const std::vector<Part>& parts, std::string (*textOf)(const Part&)) {
    std::string text;
    for (const auto& part : parts) {
        text += (text.empty() ? "" : ",") + textOf(part);
    }
    return text;
}

std::string ruleText(const RuleText& rule) {
    return R"({"id":"0D9A4C11-3E52-4F7B-9C60-7B1E2A3D4C5F","enabled":)" +
           std::string(word(rule.enabled)) + R"(,"direction":")" + rule.direction +
           R"(","action":")" + rule.action + R"(","proto":")" + rule.proto + R"(","remoteCIDR":")" +
           rule.remoteCIDR + R"(","ports":")" + rule.ports + R"("})";
}

std::string networkText(const NetworkText& network) {
    return R"({"networkID":")" + networkID(network.number) + R"(","name":")" + network.name +
           R"(","subnetCIDR":")" + network.subnetCIDR +
           R"(","dnsProxyEnabled":false,"policy":{"enabled":)" + word(network.enabled) +
           R"(,"defaultInbound":")" + network.defaultInbound +
           R"(","defaultOutbound":"allow","rules":[)" + joined(network.rules, ruleText) + "]}}";
}

std::string ownerText(const OwnerText& owner) {
    return "\"" + owner.key + R"(":{"appliedAt":)" + owner.appliedAt + R"(,"policies":)" +
           policyText(owner.networks) + "}";
}

}  // namespace

std::string networkID(int number) {
    constexpr std::string_view zeros = "00000000-0000-0000-0000-000000000000";
    const std::string digits = std::to_string(number);
    return std::string(zeros.substr(0, zeros.size() - digits.size())) + digits;
}

std::string policyText(const std::vector<NetworkText>& networks) {
    return "[" + joined(networks, networkText) + "]";
}

std::string storeText(const std::vector<OwnerText>& owners) {
    return R"({"owners":{)" + joined(owners, ownerText) + "}}";
}

}  // namespace tarnvale::test
