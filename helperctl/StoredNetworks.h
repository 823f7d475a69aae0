// SPDX-License-Identifier: MIT
//
// Finds out why the packet filter lacks networks that users have applied. The helper's report shows
// only what is enforced.

#pragma once

#include <span>

#include "helperctl/Answer.h"
#include "platform/HostAddresses.h"

namespace tarnvale::helperctl {

/// Adds to the answer which of the stored networks and rules a machine with these addresses can't
/// enforce, and why. Only root may read what is stored; anybody else gets a hint when the report
/// shows that nothing is enforced.
void explainWhatIsMissing(Answer& answer, std::span<const NetworkFirewall::HostAddress> hosts);

}  // namespace tarnvale::helperctl
