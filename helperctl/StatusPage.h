// SPDX-License-Identifier: MIT
//
// What the packet filter enforces, as a page for people: the lines in force by network, with what
// they have counted and the rules that they come from.

#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <vector>

#include "firewall/policy/PolicyStore.h"
#include "support/Json.h"

namespace tarnvale::helperctl {

/// What a rule, a default or the DHCP and DNS lines have decided. A rule may have two lines: their
/// counters are added.
struct LineStatus {
    std::string direction;             ///< "in" from the machines, "out" to them
    std::string origin;                ///< "dhcp", "dns", "rule" or "default"
    std::optional<std::int64_t> rule;  ///< its number in the policy, if what is stored may be read
    std::string words;                 ///< "rule 2, deny 10.0.0.0/8"
    bool passes = false;
    std::int64_t packets = 0;
    std::int64_t bytes = 0;
    std::int64_t states = 0;
    std::vector<std::string> lines;  ///< in pf's own language

    bool operator==(const LineStatus&) const = default;
};

struct NetworkStatus {
    std::string subnet;
    std::optional<std::string> name;
    std::optional<std::string> owner;  ///< a uid in decimal, or "legacy"
    std::vector<LineStatus> lines;

    bool operator==(const NetworkStatus&) const = default;
};

struct FirewallStatus {
    std::optional<bool> enabled;  ///< nothing if pf doesn't say
    std::string pf;               ///< its own words
    std::vector<NetworkStatus> networks;
    std::vector<std::string> others;  ///< what pfctl prints besides the lines of networks

    bool operator==(const FirewallStatus&) const = default;
};

/// The page for a report of the helper's. What isn't known without the store is left out: whose a
/// network is, and which rule gave a line. `rulesetText` is that of the ruleset's file, which has
/// the networks' names. Nothing for a text that isn't a report.
std::optional<FirewallStatus> firewallStatus(
    std::string_view report,
    std::string_view rulesetText,
    const std::optional<NetworkFirewall::PolicyStore>& store);

/// The page. With the status as it was `seconds` before, also how much has passed since.
void printText(
    const FirewallStatus& status,
    std::ostream& output,
    const FirewallStatus* before = nullptr,
    double seconds = 1);

constexpr auto jsonMembers(std::type_identity<LineStatus> /*type*/) {
    return std::tuple{
        support::JsonMember{"direction", &LineStatus::direction},
        support::JsonMember{"origin", &LineStatus::origin},
        support::JsonMember{"rule", &LineStatus::rule},
        support::JsonMember{"words", &LineStatus::words},
        support::JsonMember{"passes", &LineStatus::passes},
        support::JsonMember{"packets", &LineStatus::packets},
        support::JsonMember{"bytes", &LineStatus::bytes},
        support::JsonMember{"states", &LineStatus::states},
        support::JsonMember{"lines", &LineStatus::lines}};
}

constexpr auto jsonMembers(std::type_identity<NetworkStatus> /*type*/) {
    return std::tuple{
        support::JsonMember{"subnet", &NetworkStatus::subnet},
        support::JsonMember{"name", &NetworkStatus::name},
        support::JsonMember{"owner", &NetworkStatus::owner},
        support::JsonMember{"lines", &NetworkStatus::lines}};
}

constexpr auto jsonMembers(std::type_identity<FirewallStatus> /*type*/) {
    return std::tuple{
        support::JsonMember{"enabled", &FirewallStatus::enabled},
        support::JsonMember{"pf", &FirewallStatus::pf},
        support::JsonMember{"networks", &FirewallStatus::networks},
        support::JsonMember{"others", &FirewallStatus::others}};
}

}  // namespace tarnvale::helperctl
