// SPDX-License-Identifier: MIT
//
// The helper's own log file, its only diagnostic channel. Nothing goes to the system log, and
// nothing of ours ever reads the file back.

#pragma once

#include <string_view>

namespace tarnvale {

/// Appends "<ISO 8601 UTC timestamp> <message>" and a line feed to
/// "/var/log/tarnvale-adminhelper.log". Never fails towards the caller: a line that cannot be
/// written is lost. Safe from any thread.
void helperLog(std::string_view message);

}  // namespace tarnvale
