// SPDX-License-Identifier: MIT
//
// What the helper enforces again when it starts.

#pragma once

#include <cstddef>

namespace tarnvale::bench {

/// Stores a user's list of this size, as the helper would; returns the bytes stored.
std::size_t storePolicies(std::size_t networks, std::size_t rules);

}  // namespace tarnvale::bench
