// SPDX-License-Identifier: MIT

#include "helperctl/commands/Init.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <random>
#include <set>
#include <stdexcept>
#include <vector>

#include "firewall/analysis/Lines.h"
#include "firewall/policy/Addresses.h"
#include "firewall/policy/Problems.h"
#include "helperctl/Answer.h"

namespace tarnvale::helperctl {
namespace {

using NetworkFirewall::HostAddress;

std::string textOf(const support::Uuid& uuid) {
    std::string text;
    uuid.appendTo(text);
    return text;
}

/// The network of an IPv4 address, such as "192.168.64.0/24".
std::string networkOf(const HostAddress& host) {
    NetworkFirewall::CIDR network{.address = {}, .prefixLength = host.prefixLength};
    std::copy_n(host.bytes.begin(), network.address.size(), network.address.begin());
    network.address = FirewallAnalysis::addressBytes(FirewallAnalysis::rangeOf(network).first);
    std::string text;
    append(text, network);
    return text;
}

class PolicyWriter {
public:
    explicit PolicyWriter(const std::function<support::Uuid()>& newUuid) : newUuid_(newUuid) {}

    void addNetwork(const HostAddress& gateway, const std::set<std::string>& ownNetworks) {
        text_ += text_.empty() ? "[\n" : ",\n";
        text_ += "  {\n    \"comment\": \"The name is for people, the networkID for Tarnvale.\",\n";
        member(4, "networkID", textOf(newUuid_()));
        member(4, "name", "Network of " + gateway.interface);
        member(4, "subnetCIDR", networkOf(gateway));
        member(4, "gatewayIPv4", NetworkFirewall::dottedQuad(gateway.bytes));
        text_ += "    \"dnsProxyEnabled\": true,\n    \"policy\": {\n";
        member(
            6,
            "comment",
            "The first rule that matches decides, else the defaults: inbound is towards the "
            "machines.");
        text_ += "      \"enabled\": true,\n";
        member(6, "defaultInbound", "deny");
        member(6, "defaultOutbound", "allow");
        text_ += "      \"rules\": [\n";
        addRule(
            "Set enabled to true to let ssh in from anywhere.",
            false,
            "inbound",
            "allow",
            "tcp",
            "any",
            "22",
            ownNetworks.empty());
        std::size_t left = ownNetworks.size();
        for (const auto& network : ownNetworks) {
            addRule(
                "Keeps the machines out of this network of the host's.",
                true,
                "outbound",
                "deny",
                "any",
                network,
                "",
                --left == 0);
        }
        text_ += "      ]\n    }\n  }";
    }

    std::string take() { return text_.empty() ? text_ : text_ + "\n]"; }

private:
    /// No value has a character that JSON escapes: they are ours, or a bridge's name.
    void member(
        std::size_t indent, const char* key, const std::string& value, bool isLast = false) {
        text_.append(indent, ' ').append("\"").append(key).append("\": \"").append(value);
        text_.append(isLast ? "\"\n" : "\",\n");
    }

    void addRule(
        const char* comment,
        bool enabled,
        const char* direction,
        const char* action,
        const char* proto,
        const std::string& remote,
        const char* ports,
        bool isLast) {
        text_ += "        {\n";
        member(10, "comment", comment);
        member(10, "id", textOf(newUuid_()));
        text_.append(10, ' ').append(enabled ? "\"enabled\": true,\n" : "\"enabled\": false,\n");
        member(10, "direction", direction);
        member(10, "action", action);
        member(10, "proto", proto);
        member(10, "remoteCIDR", remote);
        member(10, "ports", ports, true);
        text_ += isLast ? "        }\n" : "        },\n";
    }

    const std::function<support::Uuid()>& newUuid_;
    std::string text_;
};

/// One that nobody else makes.
support::Uuid randomUuid() {
    static std::random_device source;
    support::Uuid uuid;
    for (auto& byte : uuid.bytes) {
        byte = static_cast<std::uint8_t>(source());
    }
    uuid.bytes[6] = static_cast<std::uint8_t>((uuid.bytes[6] & 0x0FU) | 0x40U);
    uuid.bytes[8] = static_cast<std::uint8_t>((uuid.bytes[8] & 0x3FU) | 0x80U);
    return uuid;
}

}  // namespace

std::string startingPolicy(
    std::span<const HostAddress> hosts, const std::function<support::Uuid()>& newUuid) {
    std::vector<HostAddress> gateways;
    std::set<std::string> ownNetworks;
    std::set<std::string> subnets;
    for (const auto& host : hosts) {
        if (host.bytes.size() != NetworkFirewall::IPv4Address{}.size()) {
            continue;
        }
        const auto network = networkOf(host);
        if (NetworkFirewall::isOfOwnNetwork(host)) {
            if (host.bytes.front() != 127) {
                ownNetworks.insert(network);
            }
        } else if (
            !NetworkFirewall::subnetProblem(network, hosts) && subnets.insert(network).second) {
            gateways.push_back(host);
        }
    }
    PolicyWriter writer(newUuid);
    for (const auto& gateway : gateways) {
        writer.addNetwork(gateway, ownNetworks);
    }
    return writer.take();
}

int init(const Session& session) {
    const auto policy = startingPolicy(NetworkFirewall::hostAddresses(), randomUuid);
    if (policy.empty()) {
        throw std::runtime_error(
            "This machine has no virtual network now. Start a virtual machine first.");
    }
    session.console.writeLine(policy);
    return done;
}

}  // namespace tarnvale::helperctl
