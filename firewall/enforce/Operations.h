// SPDX-License-Identifier: MIT
//
// The three operations that change what pf enforces. Each rebuilds the one anchor from every user's
// stored list, so that one user's change never disturbs what another user's networks enforce. Each
// is done as a whole before the next begins, in this process and beside others.
//
// The order of writing makes them safe: the ruleset's file is written before pfctl reads it, and
// the store is saved only after the ruleset has loaded. A refused ruleset leaves the store as it
// was.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tarnvale::HelperFirewall {

/// Makes the networks of a JSON array this user's list and enforces it. Networks that may not be
/// firewalled are not stored. `callerIsConsoleUser` is also true when nobody is at the console.
/// Returns the summary for the user. Throws `HelperError`, with `networksRefused` after the rest
/// has been applied, or `support::FileError`.
std::string applyFirewall(std::string_view policyData, std::uint32_t uid, bool callerIsConsoleUser);

/// Forgets this user's list; other users' stay in force. Throws `HelperError` or
/// `support::FileError`.
void removeFirewall(std::uint32_t uid, bool callerIsConsoleUser);

/// Enforces what is stored. Never fails: what goes wrong is logged, and the store is never written.
void reapplyAtBoot() noexcept;

}  // namespace tarnvale::HelperFirewall
