// SPDX-License-Identifier: MIT

#pragma once

#include <sstream>
#include <string>
#include <vector>

namespace tarnvale::test {

/// The lines of a text, each without its line feed. A last one needs none.
inline std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream input(text);
    for (std::string line; std::getline(input, line);) {
        lines.push_back(line);
    }
    return lines;
}

}  // namespace tarnvale::test
