// SPDX-License-Identifier: MIT
//
// `diff A B`, `diff FILE`: what changes from one file of networks to another, or from what a user
// has stored to a file. Asks no helper.

#pragma once

#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <vector>

#include "firewall/policy/FirewallRecords.h"
#include "firewall/policy/PolicyStore.h"
#include "helperctl/Session.h"
#include "platform/HostAddresses.h"
#include "support/Json.h"

namespace tarnvale::helperctl {

struct Difference {
    std::vector<std::string> records;  ///< what the lists say: "Lab, rule 3 is new: deny tcp 443"
    std::vector<std::string> lines;    ///< of the ruleset, behind "- " or "+ "
    std::vector<std::string> packets;  ///< "tcp 22 from anywhere to Lab: blocked -> passed, by …"
    std::vector<std::string> cut;      ///< the subnets whose connections an apply would end

    bool isEmpty() const {
        return records.empty() && lines.empty() && packets.empty() && cut.empty();
    }
    bool operator==(const Difference&) const = default;
};

constexpr auto jsonMembers(std::type_identity<Difference> /*type*/) {
    return std::tuple{
        support::JsonMember{"records", &Difference::records},
        support::JsonMember{"lines", &Difference::lines},
        support::JsonMember{"packets", &Difference::packets},
        support::JsonMember{"cut", &Difference::cut}};
}

/// What an apply of `now` would change for a user whose list is `before`, on a machine with these
/// addresses where nobody else has networks.
Difference difference(
    const std::vector<NetworkFirewall::FirewallNetworkPolicy>& before,
    const std::vector<NetworkFirewall::FirewallNetworkPolicy>& now,
    std::span<const NetworkFirewall::HostAddress> hosts);

/// What an apply of `now` would change for the owner of that key, beside what all others have
/// stored. Lines and packets are those of all users' networks: an apply also takes a subnet from
/// whoever has claimed it before.
Difference differenceFromStored(
    const NetworkFirewall::PolicyStore& store,
    const std::string& ownerKey,
    std::vector<NetworkFirewall::FirewallNetworkPolicy> now,
    std::span<const NetworkFirewall::HostAddress> hosts);

int diff(const Session& session);

inline constexpr std::string_view diffHelp =
    R"(Prints what changes from FILE to OTHER, as if nobody else had networks. Without
OTHER, which takes root: what an apply of FILE would change. Then the list that
goes is root's own, or that of the user whom --user names; what others have
stored stays, but for networks whose subnet FILE claims. Asks no helper.

Records      networks and rules that are new, gone or changed, told apart by ID;
             without OTHER also networks that would be refused, and those that
             others lose
Lines        of the ruleset: "-" goes, "+" comes
Packets      that open a connection and whose verdict changes, all of them. A
             packet between two networks crosses pf twice and may be listed at
             both.
Connections  the networks whose connections an apply cuts; what the rules pass
             can connect again

Networks that older versions stored for nobody in particular stay as they are,
unless FILE has one of them; an apply of the user at the console drops them all.
)";

}  // namespace tarnvale::helperctl
