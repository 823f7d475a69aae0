// SPDX-License-Identifier: MIT
//
// The file of networks that a command is given.

#pragma once

#include <cstddef>
#include <string>

namespace tarnvale::helperctl {

/// What one request can carry.
inline constexpr std::size_t policyFileLimit = std::size_t{64} << 20U;  // bytes

/// All bytes of the file, which need not be a regular one; "-" is standard input. Throws
/// `std::runtime_error`, a sentence that names the file.
std::string readPolicyFile(const std::string& path);

}  // namespace tarnvale::helperctl
