// SPDX-License-Identifier: MIT
//
// What the running program says of itself in its information dictionary.

#pragma once

#include <optional>
#include <string>

namespace tarnvale::platform {

/// The value of "CFBundleShortVersionString"; nothing when there is no dictionary, no such key, or
/// the value is no string. On Linux it is put into the program at build time.
std::optional<std::string> bundleShortVersion();

}  // namespace tarnvale::platform
