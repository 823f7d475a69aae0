// SPDX-License-Identifier: MIT
//
// InputBytes as a network's rules and as packets. The rules that the analysis calls idle can all go
// without the verdict on any of these packets changing; a packet's text is read as the packet.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "firewall/analysis/Effects.h"
#include "firewall/analysis/Packet.h"
#include "tests/fuzz/InputBytes.h"
#include "tests/fuzz/Require.h"

namespace tarnvale::FirewallAnalysis {

namespace {

using test::InputBytes;
using test::require;

/// A few bytes each, so that rules meet often.
NetworkFirewall::FirewallRule ruleOf(InputBytes& bytes) {
    using NetworkFirewall::FirewallRule;
    const unsigned bits = bytes.next();
    FirewallRule rule;
    rule.enabled = (bits & 0x80U) == 0;
    rule.direction = FirewallRule::allDirections.at(bits & 1U);
    rule.action = FirewallRule::allActions.at(bits >> 1U & 1U);
    rule.proto = FirewallRule::allProtos.at(bits >> 2U & 3U);
    if ((bits & 0x10U) != 0) {
        rule.remoteCIDR = "10.0." + std::to_string(bytes.next()) + "." +
                          std::to_string(bytes.next()) + "/" + std::to_string(bytes.next() % 33);
    }
    if ((bits & 0x20U) != 0) {
        rule.ports = std::to_string(bytes.next() % 128);
    }
    if ((bits & 0x60U) == 0x60) {
        rule.ports += "-" + std::to_string(bytes.next());
    }
    return rule;
}

bool passes(
    const NetworkLines& network,
    Direction direction,
    Kind kind,
    Address remote,
    std::uint16_t port) {
    return network.lines.at(decidingLine(network, direction, kind, remote, port).value()).passes;
}

void check(std::span<const std::uint8_t> data) {
    InputBytes bytes(data);
    NetworkFirewall::FirewallNetworkPolicy policy;
    policy.subnetCIDR = "192.168.64.0/24";
    policy.gatewayIPv4 = "192.168.64.1";
    const unsigned defaults = bytes.next();
    policy.dnsProxyEnabled = (defaults & 1U) != 0;
    policy.policy.defaultInbound =
        NetworkFirewall::FirewallRule::allActions.at(defaults >> 1U & 1U);
    policy.policy.defaultOutbound =
        NetworkFirewall::FirewallRule::allActions.at(defaults >> 2U & 1U);
    constexpr std::size_t maxRules = 64;
    while (!bytes.isEmpty() && policy.policy.rules.size() < maxRules) {
        policy.policy.rules.push_back(ruleOf(bytes));
    }

    const NetworkLines network = linesOf(policy);
    const std::vector<IdleRule> idle = idleRules(network);
    NetworkLines without = network;
    std::erase_if(without.lines, [&](const Line& line) {
        return std::ranges::any_of(
            idle, [&](const IdleRule& rule) { return rule.number == line.ruleNumber; });
    });
    for (const Line& line : network.lines) {
        for (const Address remote :
             {line.remote.first, line.remote.first - 1, line.remote.last, line.remote.last + 1}) {
            for (const int port : {line.ports.first - 1, +line.ports.first, +line.ports.last}) {
                for (const Kind kind : allKinds) {
                    const auto number = static_cast<std::uint16_t>(port);
                    require(
                        passes(network, line.direction, kind, remote, number) ==
                        passes(without, line.direction, kind, remote, number));
                }
            }
        }
    }
}

void checkPacket(std::string_view written) {
    try {
        const Packet packet = parsePacket(written);
        require(parsePacket(text(packet)) == packet);
    } catch (const PacketError& error) {
        require(*error.what() != '\0');
    }
}

}  // namespace

}  // namespace tarnvale::FirewallAnalysis

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    tarnvale::FirewallAnalysis::check({data, size});
    tarnvale::FirewallAnalysis::checkPacket({reinterpret_cast<const char*>(data), size});
    return 0;
}
