// SPDX-License-Identifier: MIT
//
// Earlier versions had an anchor of their own that /etc/pf.conf referred to. This removes every
// trace of it, and is harmless when there is none.

#pragma once

namespace tarnvale::HelperFirewall {

/// Never fails: what can't be cleaned up now is tried again at the next load. The file as it was
/// before the first clean-up stays in the support folder.
void removeLegacyAnchor();

}  // namespace tarnvale::HelperFirewall
