// SPDX-License-Identifier: MIT
//
// What a document sets in its own type: words between backticks, and indented blocks.

#pragma once

#include <string>
#include <vector>

namespace tarnvale::test {

/// The texts between backticks, each on one line.
std::vector<std::string> spansOf(const std::string& document);

/// The blocks that four spaces indent, without these.
std::vector<std::string> blocksOf(const std::string& document);

/// The spans that are paths from the top of the sources, such as "scripts/check" of "scripts/check
/// quick", whether these exist or not. A name without a folder is one if it ends as documents' or
/// CMake's do, or if there is such a file.
std::vector<std::string> pathsOf(const std::string& document);

}  // namespace tarnvale::test
