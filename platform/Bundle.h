// SPDX-License-Identifier: MIT
//
// What the running program's information dictionary says about it.

#pragma once

#include <optional>
#include <string>

namespace tarnvale::platform {

/// The value of "CFBundleShortVersionString"; nothing when there is no dictionary, no such key, or
/// the value isn't a string. On Linux the build puts the value into the program.
std::optional<std::string> bundleShortVersion();

}  // namespace tarnvale::platform
