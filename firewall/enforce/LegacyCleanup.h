// SPDX-License-Identifier: MIT
//
// Removes every trace of the anchor that earlier versions used and /etc/pf.conf referred to. It is
// harmless when there is none.

#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tarnvale::HelperFirewall {

/// Never fails: the next load tries again what can't be cleaned up now. A copy of /etc/pf.conf from
/// before the first clean-up stays in the support folder.
void removeLegacyAnchor();

/// What the file /etc/pf.conf with this text has to become: the same without the lines that name
/// the old anchor. Nothing if no line does, or if it isn't text.
std::optional<std::string> cleanedPfConf(std::string_view text);

}  // namespace tarnvale::HelperFirewall
