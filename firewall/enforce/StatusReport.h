// SPDX-License-Identifier: MIT
//
// What pf is doing and what the helper's anchor holds, for people to read.

#pragma once

#include <string>

namespace tarnvale::HelperFirewall {

/// The report, without a final line feed. It asks pf alone, takes no lock and never fails: what
/// pfctl has to complain about stands in the anchor's place.
std::string statusReport();

}  // namespace tarnvale::HelperFirewall
