// SPDX-License-Identifier: MIT
//
// `init`: prints a policy to start from, for the virtual networks that this machine has now.

#pragma once

#include <functional>
#include <span>
#include <string>
#include <string_view>

#include "helperctl/Session.h"
#include "platform/HostAddresses.h"
#include "support/Uuid.h"

namespace tarnvale::helperctl {

/// A file of the virtual networks on a machine with these addresses, with comments; empty if it has
/// none. Takes each identity from `newUuid`.
std::string startingPolicy(
    std::span<const NetworkFirewall::HostAddress> hosts,
    const std::function<support::Uuid()>& newUuid);

int init(const Session& session);

inline constexpr std::string_view initHelp =
    R"(Prints a file to start from: for each virtual network that this machine has now,
a firewall that lets the machines out, but not into this machine's own networks,
and lets nobody in. Its comments, members with the name "comment", say what may
be changed; the helper ignores and forgets them. Asks no helper, and changes
nothing: look at it, then apply it.

  tarnvale-helperctl init >lab.json

Exit status 1: this machine has no virtual network now.
)";

}  // namespace tarnvale::helperctl
