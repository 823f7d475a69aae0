// SPDX-License-Identifier: MIT
//
// Removes every trace of the anchor that earlier versions used and /etc/pf.conf referred to. It is
// harmless when there is none.

#pragma once

namespace tarnvale::HelperFirewall {

/// Never fails: the next load tries again what can't be cleaned up now. A copy of /etc/pf.conf from
/// before the first clean-up stays in the support folder.
void removeLegacyAnchor();

}  // namespace tarnvale::HelperFirewall
