// SPDX-License-Identifier: MIT
//
// The version that the helper reports of itself.

#pragma once

#include <string>

namespace tarnvale {

/// "CFBundleShortVersionString" of the main bundle's information dictionary, or "7" where the
/// program carries none.
const std::string& helperVersionString();

}  // namespace tarnvale
