// SPDX-License-Identifier: MIT
//
// The version that the helper reports as its own.

#pragma once

#include <string>

namespace tarnvale {

/// "CFBundleShortVersionString" of the main bundle's information dictionary, or "7" if the
/// program has none.
const std::string& helperVersionString();

}  // namespace tarnvale
