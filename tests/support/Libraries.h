// SPDX-License-Identifier: MIT
//
// Where this machine's loader finds libraries, for the tests that give a program another root.

#pragma once

#include <filesystem>
#include <optional>
#include <string_view>
#include <vector>

namespace tarnvale::test {

/// The libraries that a program or library is linked with, the loader included.
std::vector<std::filesystem::path> librariesOf(const std::filesystem::path& file);

/// The path of a library that is loaded by name; nothing where this machine doesn't have it.
std::optional<std::filesystem::path> libraryPath(std::string_view name);

}  // namespace tarnvale::test
