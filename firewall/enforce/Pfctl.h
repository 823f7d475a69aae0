// SPDX-License-Identifier: MIT
//
// The command lines by which the helper has the packet filter changed and asked, and what pfctl's
// output means. The helper touches pf in no other way.

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

/// Standard output and standard error, each trimmed of white space and line ends, the empty ones
/// left out, joined by a line feed.
std::string combinedOutput(const CommandResult& result);

/// What `combinedOutput` says without the notices that pfctl always prints; all of it, trimmed,
/// when there is nothing else.
std::string pfctlMessage(std::string_view output);

/// Loads the file into the helper's anchor, again and again while pf is busy, up to six times in
/// all. Throws `HelperError` when pfctl refuses it.
void loadRulesetFile(const std::string& path);

void enablePf();

/// Kills the states of connections from the subnet, and of those from anywhere to it.
void killStates(const std::string& subnetCIDR);

void flushAnchor();

void flushLegacyAnchor();

/// What `-si` prints: whether pf is enabled, and its counters.
CommandResult pfStatus();

/// The anchor's rules with their counters.
CommandResult listAnchorRules();

}  // namespace tarnvale::HelperFirewall
