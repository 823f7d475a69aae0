// SPDX-License-Identifier: MIT
//
// Command lines made of an input.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "support/Text.h"

namespace tarnvale::test {

/// The words between the input's zero bytes; none in an empty input.
inline std::vector<std::string> wordsIn(const std::uint8_t* data, std::size_t size) {
    std::vector<std::string> words;
    if (size > 0) {
        const std::string_view bytes(reinterpret_cast<const char*>(data), size);
        for (const auto word : support::split(bytes, '\0')) {
            words.emplace_back(word);
        }
    }
    return words;
}

}  // namespace tarnvale::test
