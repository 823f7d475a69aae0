// SPDX-License-Identifier: MIT
//
// Reads the file of networks that a command gets.

#pragma once

#include <cstddef>
#include <string>

namespace tarnvale::helperctl {

/// A request can't carry more.
inline constexpr std::size_t maxPolicyFileSize = std::size_t{64} << 20U;  // bytes

/// All bytes of the file, which may also be a pipe or a device; "-" is standard input. Throws
/// `std::runtime_error` with a sentence that names the file.
std::string readPolicyFile(const std::string& path);

}  // namespace tarnvale::helperctl
