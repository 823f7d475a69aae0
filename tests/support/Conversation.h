// SPDX-License-Identifier: MIT
//
// How a test and its client program talk: sentences of words, each word any bytes.

#pragma once

#include <optional>
#include <string>
#include <vector>

namespace tarnvale::test {

using Words = std::vector<std::string>;

/// Writes the sentence. Throws `std::system_error`.
void say(int fd, const Words& words);

/// Reads the next sentence; nothing when the other side has gone.
std::optional<Words> hear(int fd);

}  // namespace tarnvale::test
