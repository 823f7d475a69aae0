// SPDX-License-Identifier: MIT
//
// `lint FILE`: what in a file of networks doesn't do what it seems to, with its places. Asks no
// helper.

#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "firewall/analysis/Enforced.h"
#include "firewall/analysis/Lint.h"
#include "helperctl/Session.h"
#include "platform/HostAddresses.h"
#include "support/Json.h"

namespace tarnvale::helperctl {

/// Findings about a file, with where each is: "[0].policy.rules[1].ports", line and column.
struct Linted {
    FirewallAnalysis::EnforcedList list;
    std::vector<FirewallAnalysis::Finding> findings;
    std::vector<std::string> paths;          ///< of the findings
    std::vector<support::JsonPlace> places;  ///< of the findings

    /// Whether there is more than notes.
    bool isAnySerious() const;
};

/// Throws `HelperFirewall::HelperError` for data that is not a policy.
Linted linted(std::string_view policyData, std::span<const NetworkFirewall::HostAddress> hosts);

int lint(const Session& session);

inline constexpr std::string_view lintHelp =
    R"(Prints what in a file of networks doesn't do what it seems to, with its place
in the file. What it says is exact: it is so for every packet. What can't be
known from the file isn't said. All rules that are shadowed or redundant could
be removed at once without any packet's verdict changing. Asks no helper.

errors: something is left out
  refused          the network can't be enforced on this machine
  claimed          another network has the same subnet and comes first
  covered          an earlier network has all of its addresses, or (a warning)
                   some
  faulty           the rule can't be written
warnings: something does less than it says
  shadowed         earlier lines take all packets of the rule
  redundant        without the rule, what follows gives the same verdict
  overtaken        the DHCP or DNS lines pass what the rule denies
  own-subnet       two machines of one network are never filtered
  ports-ignored    icmp has no ports
  gateway-missing  the DNS proxy is on, but no line passes DNS to it
  gateway-dropped  the gateway isn't an address in the subnet
notes
  off, disabled    of a network or a rule: it isn't enforced
  host-bits        10.0.0.7/8 means all of 10.0.0.0/8
  reachable        machines of other networks may open connections to it; the
                   rules come before those by which newer versions of macOS
                   keep virtual networks apart
  ipv6             no rule is about IPv6

Exit status 1: there is an error or a warning.
)";

}  // namespace tarnvale::helperctl
