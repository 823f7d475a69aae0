// SPDX-License-Identifier: MIT
//
// Reads a part of an open file, all of it or nothing.

#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include <sys/types.h>

namespace tarnvale::platform {

/// The `count` bytes from `offset` on; nothing when there are fewer or they cannot be read.
std::optional<std::string> readExactly(int file, std::size_t count, off_t offset);

}  // namespace tarnvale::platform
