// SPDX-License-Identifier: MIT
//
// What the helper keeps in its folder, and why the packet filter lacks networks that users have
// applied: the helper's report shows only what is enforced.

#pragma once

#include <optional>
#include <span>
#include <string>

#include "firewall/policy/PolicyStore.h"
#include "helperctl/Answer.h"
#include "platform/HostAddresses.h"

namespace tarnvale::helperctl {

/// What users have stored. Nothing if there is no store, if it can't be decoded, or for anybody but
/// root.
std::optional<NetworkFirewall::PolicyStore> readStore();

/// The same for root: empty if there is no store. Throws `std::runtime_error` if there is one that
/// can't be read.
NetworkFirewall::PolicyStore requireStore();

/// Where the store is.
std::string storePath();

/// The text of the ruleset that was loaded last; empty if it can't be read.
std::string loadedRulesetText();

/// Adds to the answer which of the stored networks and rules a machine with these addresses can't
/// enforce, and why. Only root may read what is stored; anybody else gets a hint when the report
/// shows that nothing is enforced.
void explainWhatIsMissing(Answer& answer, std::span<const NetworkFirewall::HostAddress> hosts);

}  // namespace tarnvale::helperctl
