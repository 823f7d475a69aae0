// SPDX-License-Identifier: MIT
//
// The helper's own log file, its only diagnostic channel. Nothing goes to the system log, and no
// program of ours reads the file back.

#pragma once

#include <string_view>

namespace tarnvale {

/// Appends "<ISO 8601 UTC timestamp> <message>" and a line feed to
/// "/var/log/tarnvale-adminhelper.log". Never fails: a line that can't be written is lost.
/// Safe from any thread.
void helperLog(std::string_view message);

}  // namespace tarnvale
