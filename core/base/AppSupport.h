// SPDX-License-Identifier: MIT
//
// The folder in which the helper keeps its files.

#pragma once

namespace tarnvale {

inline constexpr const char* appSupportDirectory = "/Library/Application Support/Tarnvale";

}  // namespace tarnvale
