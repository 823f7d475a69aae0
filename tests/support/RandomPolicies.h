// SPDX-License-Identifier: MIT
//
// Lists of networks for property tests: made by a fixed rule from a seed, mostly sensible, with
// enough of everything that is wrong, contested or strange.

#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "firewall/policy/FirewallRecords.h"

namespace tarnvale::test {

class RandomPolicies {
public:
    explicit RandomPolicies(std::uint32_t seed) : random_(seed) {}

    std::size_t below(std::size_t bound) { return random_() % bound; }
    bool chance(std::size_t oneIn) { return below(oneIn) == 0; }

    template <class Value>
    const Value& oneOf(const std::vector<Value>& values) {
        return values[below(values.size())];
    }

    std::vector<NetworkFirewall::FirewallNetworkPolicy> networks(std::size_t maxCount) {
        std::vector<NetworkFirewall::FirewallNetworkPolicy> made(below(maxCount + 1));
        for (auto& network : made) {
            fill(network);
        }
        return made;
    }

    NetworkFirewall::FirewallRule rule() {
        using NetworkFirewall::FirewallRule;
        FirewallRule made;
        made.id = uuid();
        made.enabled = !chance(5);
        made.direction = FirewallRule::allDirections.at(below(2));
        made.action = FirewallRule::allActions.at(below(2));
        made.proto = FirewallRule::allProtos.at(below(4));
        made.remoteCIDR = oneOf<std::string>(
            {"any",
             "",
             " ANY ",
             "10.0.0.7/8",
             "1.1.1.1",
             "255.255.255.255/32",
             "0.0.0.0/0",
             "10.0.0/8",
             "any\nblock drop in quick from any to any",
             "fe80::1",
             "10.0.0.0/33",
             dottedQuad() + "/" + std::to_string(below(34)),
             dottedQuad()});
        made.ports = oneOf<std::string>(
            {"",
             "",
             "\t ",
             "22",
             "8000-8080",
             "80--90",
             "443:",
             "+80",
             "0",
             "65535",
             "99999",
             "80,443",
             "22 keep state",
             "22\npass in quick from any to any",
             std::to_string(below(70'000)) + "-" + std::to_string(below(70'000))});
        return made;
    }

    /// Text of any kind: line ends, comment signs, quotation marks, bytes that are not text.
    std::string name() {
        std::string made;
        for (auto pieces = below(6); pieces > 0; --pieces) {
            made += oneOf<std::string>(
                {"Lab",
                 "Büro",
                 " ",
                 "\n",
                 "\r\n",
                 "\v",
                 "\f",
                 "\u0085",
                 "\u2028",
                 "\u2029",
                 "\\",
                 "#",
                 "\"",
                 "\xC2",
                 "\xE2\x80",
                 "\xFF",
                 "\n# ---",
                 "😀",
                 std::string(1, '\0'),
                 "\npass in quick from any to any",
                 "\nblock drop out quick from any to any",
                 std::string(300, 'n'),
                 "\\\n"});
        }
        return made;
    }

private:
    support::Uuid uuid() {
        support::Uuid made;
        for (auto& byte : made.bytes) {
            byte = static_cast<std::uint8_t>(random_());
        }
        return made;
    }

    std::string dottedQuad() {
        return std::to_string(below(256)) + "." + std::to_string(below(256)) + "." +
               std::to_string(below(256)) + "." + std::to_string(below(256));
    }

    void fill(NetworkFirewall::FirewallNetworkPolicy& network) {
        using NetworkFirewall::FirewallRule;
        network.networkID = uuid();
        network.name = name();
        const std::string third = std::to_string(below(8));
        network.subnetCIDR = oneOf<std::string>(
            {"192.168." + third + ".0/24",
             "192.168." + third + ".77/24",
             " 192.168." + third + ".9/" + std::to_string(19 + below(13)) + " ",
             "192.168.64.0/20",
             "192.168." + third + ".0",
             "10.0." + third + ".0/24",
             "nowhere",
             "",
             "192.168.1.0/24\n192.168.2.0/24"});
        if (!chance(3)) {
            network.gatewayIPv4 = oneOf<std::string>(
                {"192.168." + third + ".1",
                 "192.168." + third + ".0",
                 "10.0.0.1",
                 "",
                 " 192.168." + third + ".1",
                 "192.168.64.1",
                 "192.168.1.1\nx"});
        }
        network.dnsProxyEnabled = chance(2);
        network.policy.enabled = !chance(5);
        network.policy.defaultInbound = FirewallRule::allActions.at(below(2));
        network.policy.defaultOutbound = FirewallRule::allActions.at(below(2));
        for (auto left = below(6); left > 0; --left) {
            network.policy.rules.push_back(rule());
        }
    }

    std::mt19937 random_;
};

}  // namespace tarnvale::test
