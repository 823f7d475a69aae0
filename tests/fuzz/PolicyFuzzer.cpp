// SPDX-License-Identifier: MIT
//
// Texts as they may stand in a firewall record: a name, a subnet, a gateway, a remote and ports,
// one after the other, each ended by a zero byte. What they mean in a ruleset is what a second
// reading finds, with the system's own functions for addresses; it is canonical, and every line of
// the ruleset is a comment or a rule.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <arpa/inet.h>

#include "firewall/policy/Addresses.h"
#include "firewall/policy/AnchorText.h"
#include "firewall/policy/Problems.h"
#include "firewall/policy/Review.h"
#include "support/Text.h"
#include "tests/fuzz/Require.h"
#include "tests/support/RulesetGrammar.h"

namespace tarnvale::NetworkFirewall {

namespace {

using test::require;

struct Network {
    std::uint32_t address;
    unsigned length;
};

std::string textOf(const Network& network) {
    const in_addr address{.s_addr = htonl(network.address)};
    std::array<char, INET_ADDRSTRLEN> text{};
    ::inet_ntop(AF_INET, &address, text.data(), text.size());
    return text.data() + ("/" + std::to_string(network.length));
}

/// The number of so many digits at most; nothing for another one, or for more than the limit.
std::optional<unsigned> numberIn(const std::string& text, std::size_t digits, unsigned limit) {
    if (text.empty() || text.size() > digits ||
        text.find_first_not_of("0123456789") != std::string::npos) {
        return std::nullopt;
    }
    const auto number = static_cast<unsigned>(std::stoul(text));
    return number <= limit ? std::optional(number) : std::nullopt;
}

/// The network that inet_pton reads in front of the slash.
std::optional<Network> networkBySystem(const std::string& text) {
    const auto slash = text.find('/');
    in_addr address{};
    const auto length =
        slash == std::string::npos ? std::optional(32U) : numberIn(text.substr(slash + 1), 2, 32);
    if (!length || ::inet_pton(AF_INET, text.substr(0, slash).c_str(), &address) != 1) {
        return std::nullopt;
    }
    return Network{.address = ntohl(address.s_addr), .length = *length};
}

std::optional<std::string> subnetBySystem(const std::string& text) {
    auto network = networkBySystem(text);
    constexpr std::uint32_t virtualNetworks = 192U << 8U | 168U;
    if (!network || network->length < 20 || network->length > 30 ||
        network->address >> 16U != virtualNetworks) {
        return std::nullopt;
    }
    network->address -= network->address % (1U << (32 - network->length));
    return textOf(*network);
}

std::optional<std::string> remoteBySystem(std::string text) {
    const auto network = networkBySystem(text);
    std::ranges::transform(text, text.begin(), [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
    });
    if (text.empty() || text == "any") {
        return "any";
    }
    return network ? std::optional(textOf(*network)) : std::nullopt;
}

std::optional<std::string> portsByWalk(std::string text) {
    constexpr unsigned maxPort = 65535;
    std::ranges::replace(text, '-', ':');
    std::vector<unsigned> ports;
    for (const auto piece : support::split(text, ':')) {
        std::string digits(piece.substr(piece.starts_with('+') ? 1 : 0));
        digits.erase(0, std::min(digits.find_first_not_of('0'), digits.size()));
        const auto port = numberIn(digits, 5, maxPort);
        if (!piece.empty() && !port) {
            return std::nullopt;
        }
        if (port) {
            ports.push_back(*port);
        }
    }
    if (ports.empty() || ports.size() > 2 || ports.front() > ports.back()) {
        return std::nullopt;
    }
    return std::to_string(ports.front()) +
           (ports.size() == 2 ? ":" + std::to_string(ports.back()) : "");
}

/// A second reading finds the same meaning, and reading a canonical form again does not change it.
void checkForms(const std::string& text) {
    const std::string trimmed(support::trimWhitespace(text));
    require(canonicalSubnet(text) == subnetBySystem(trimmed));
    require(normalizedRemote(text) == remoteBySystem(trimmed));
    require(normalizedPorts(text) == portsByWalk(trimmed));
    if (const auto subnet = canonicalSubnet(text)) {
        require(canonicalSubnet(*subnet) == subnet && test::isPfAddress(*subnet));
    }
    if (const auto remote = normalizedRemote(text)) {
        require(normalizedRemote(*remote) == remote && test::isPfAddress(*remote));
    }
    if (const auto ports = normalizedPorts(text)) {
        require(normalizedPorts(*ports) == ports && test::isPfPorts(*ports));
    }
    if (const auto address = parseIPv4(text)) {
        require(parseIPv4(dottedQuad(*address)) == address);
    }
    require(support::isValidUtf8(support::repairedUtf8(text)));
}

std::vector<FirewallRule> rulesOfEveryKind(
    const std::string& remoteCIDR, const std::string& ports) {
    std::vector<FirewallRule> rules;
    for (const auto direction : FirewallRule::allDirections) {
        for (const auto action : FirewallRule::allActions) {
            for (const auto proto : FirewallRule::allProtos) {
                rules.push_back(
                    {.id = {},
                     .enabled = true,
                     .direction = direction,
                     .action = action,
                     .proto = proto,
                     .remoteCIDR = remoteCIDR,
                     .ports = ports});
            }
        }
    }
    return rules;
}

void check(const std::array<std::string, 5>& texts) {
    for (const std::string& text : texts) {
        checkForms(text);
    }

    FirewallNetworkPolicy network;
    network.name = texts[0];
    network.subnetCIDR = texts[1];
    network.gatewayIPv4 = texts[2];
    network.dnsProxyEnabled = true;
    network.policy.enabled = true;
    network.policy.rules = rulesOfEveryKind(texts[3], texts[4]);
    for (const FirewallRule& rule : network.policy.rules) {
        require(ruleProblem(rule).has_value() == ruleLines(rule, "192.168.64.0/24").empty());
    }

    const std::string direct = anchorText(std::vector{network}, {});
    const std::string reviewed = anchorText(review({network}, {}).enforceable, {});
    for (const std::string& text : {direct, reviewed}) {
        for (const std::string_view line : support::split(text, '\n')) {
            require(test::isRulesetLine(std::string(line)));
        }
    }
}

}  // namespace

}  // namespace tarnvale::NetworkFirewall

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view all(reinterpret_cast<const char*>(data), size);
    std::array<std::string, 5> texts;
    std::size_t next = 0;
    for (const std::string_view text : tarnvale::support::split(all, '\0')) {
        if (next < texts.size()) {
            texts.at(next++) = text;
        }
    }
    tarnvale::NetworkFirewall::check(texts);
    return 0;
}
