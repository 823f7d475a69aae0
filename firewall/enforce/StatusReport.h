// SPDX-License-Identifier: MIT
//
// Reports to people what pf is doing and what the helper's anchor holds.

#pragma once

#include <string>

namespace tarnvale::HelperFirewall {

/// The report, without a final line feed. Asks only pf, takes no lock and never fails: pfctl's
/// complaints appear in place of the anchor's rules.
std::string statusReport();

}  // namespace tarnvale::HelperFirewall
