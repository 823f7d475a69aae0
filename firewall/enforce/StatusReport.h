// SPDX-License-Identifier: MIT
//
// Reports to people what pf is doing and what the helper's anchor holds.

#pragma once

#include <string>

#include "platform/Command.h"

namespace tarnvale::HelperFirewall {

/// The report, without a final line feed. Asks only pf, takes no lock and never fails: pfctl's
/// complaints appear in place of the anchor's rules.
std::string statusReport();

/// The same from what pfctl has printed for `pfStatus` and `listAnchorRules`.
std::string statusReport(
    const platform::CommandResult& status, const platform::CommandResult& rules);

}  // namespace tarnvale::HelperFirewall
