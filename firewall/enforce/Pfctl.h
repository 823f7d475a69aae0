// SPDX-License-Identifier: MIT
//
// Runs pfctl to change the packet filter or to ask it, and reads its output. The helper touches pf
// in no other way.

#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/Command.h"

namespace tarnvale::HelperFirewall {

using platform::CommandResult;

inline constexpr const char* pfctlPath = "/sbin/pfctl";

/// The anchor that earlier versions used.
inline constexpr const char* legacyAnchorName = "com.tarnvale.firewall";

/// Runs pfctl with these arguments.
CommandResult runPfctl(const std::vector<std::string>& arguments);

/// Standard output and standard error, each trimmed of white space and line ends, joined by a line
/// feed. An empty one is left out.
std::string combinedOutput(const CommandResult& result);

/// The output without the notices that pfctl always prints; if it has nothing else, all of it,
/// trimmed.
std::string pfctlMessage(std::string_view output);

/// Loads the file into the helper's anchor. While pf is busy it tries again, six times in all.
/// Throws `HelperError` when pfctl refuses the file.
void loadRulesetFile(const std::string& path);

void enablePf();

/// Kills the states of connections from the subnet and to it.
void killStates(const std::string& subnetCIDR);

void flushAnchor();

void flushLegacyAnchor();

/// Whether pf is enabled, and its counters, as `-si` prints them.
CommandResult pfStatus();

/// The anchor's rules with their counters.
CommandResult listAnchorRules();

}  // namespace tarnvale::HelperFirewall
