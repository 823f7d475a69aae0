// SPDX-License-Identifier: MIT
//
// Applies, removes and re-applies users' firewalls: the three operations that change what pf
// enforces. Each rebuilds the one anchor from every user's stored list, so one user's change never
// disturbs another user's networks. Operations never overlap, neither in this process nor between
// processes.
//
// The order of writing makes them safe: an operation writes the ruleset's file before pfctl reads
// it, and saves the store only after the ruleset has loaded. A refused ruleset leaves the store as
// it was.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tarnvale::HelperFirewall {

/// Makes the networks of a JSON array this user's list and enforces it. Networks that may not be
/// firewalled are not stored. `callerIsConsoleUser` is also true when nobody is at the console.
/// Returns the summary for the user. Throws `support::FileError` or `HelperError`; before it throws
/// `networksRefused`, it has applied the rest.
std::string applyFirewall(std::string_view policyData, std::uint32_t uid, bool callerIsConsoleUser);

/// Forgets this user's list; other users' stay in force. Throws `HelperError` or
/// `support::FileError`.
void removeFirewall(std::uint32_t uid, bool callerIsConsoleUser);

/// Enforces what is stored. Logs whatever goes wrong; never writes the store.
void reapplyAtBoot() noexcept;

}  // namespace tarnvale::HelperFirewall
