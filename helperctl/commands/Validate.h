// SPDX-License-Identifier: MIT
//
// `validate FILE`: everything that is wrong with a file of networks, at once and with its places.
// Asks no helper, but judges by the helper's own rules.

#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "helperctl/Session.h"
#include "platform/HostAddresses.h"
#include "support/JsonProblems.h"

namespace tarnvale::helperctl {

struct Validation {
    std::size_t networks = 0;
    std::size_t rules = 0;
    /// In the order of the text. Those that are ignored are no more than warnings.
    std::vector<support::JsonProblem> problems;

    bool isValid() const;
};

/// What keeps networks and rules of the policy from being enforced on a machine with these
/// addresses. Finds nothing but warnings exactly if an apply there would enforce all of it.
Validation validated(
    std::string_view policyData, std::span<const NetworkFirewall::HostAddress> hosts);

int validate(const Session& session);

inline constexpr std::string_view validateHelp =
    R"(Reads a file of networks as the helper would and prints everything that keeps a
network or a rule of it from being enforced on this machine, each on a line with
its place in the file:

  lab.json:8:55: [0].policy.rules[1].ports: "x" isn't a port or port range …

A line with "warning:" is about something that the helper ignores, such as a key
that it doesn't know; a member "comment" is for people and gets none. Networks
and rules that are off aren't judged, as long as they can be read. Standard
error gets a count.

Exit status 1: there is a problem.
)";

}  // namespace tarnvale::helperctl
