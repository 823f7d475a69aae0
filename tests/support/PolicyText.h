// SPDX-License-Identifier: MIT
//
// Policies as an application sends them and as the store's file holds them, written out as JSON by
// hand. Tests that read the product's JSON with the product's own eyes would not see a change of
// it.

#pragma once

#include <string>
#include <vector>

namespace tarnvale::test {

struct RuleText {
    std::string remoteCIDR = "any";
    std::string ports = "22";
    bool enabled = true;
    std::string direction = "inbound";
    std::string action = "allow";
    std::string proto = "tcp";
};

/// A network whose firewall lets everything out and, but for the rules, nothing in. It has no DNS
/// proxy.
struct NetworkText {
    int number = 64;  ///< up to 999; its ID ends in it
    std::string name = "Lab";
    std::string subnetCIDR = "192.168." + std::to_string(number) + ".0/24";
    std::vector<RuleText> rules = {};
    bool enabled = true;
    std::string defaultInbound = "deny";
};

/// The ID of the network with this number: zeros, and at the end the number.
std::string networkID(int number);

/// The list that an application sends.
std::string policyText(const std::vector<NetworkText>& networks);

/// One owner's list in the store. The time is in seconds since 2001.
struct OwnerText {
    std::string key;
    std::vector<NetworkText> networks;
    std::string appliedAt = "763636013.25";
};

/// What the store's file holds, without its blanks and line feeds.
std::string storeText(const std::vector<OwnerText>& owners);

}  // namespace tarnvale::test
