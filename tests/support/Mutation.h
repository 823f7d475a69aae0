// SPDX-License-Identifier: MIT
//
// Small damage to texts, for tests that compare what two readers make of it.

#pragma once

#include <cstddef>
#include <random>
#include <string>
#include <string_view>

namespace tarnvale::test {

/// The text with one to three random changes: bytes replaced, put in, cut out or repeated. Half of
/// the bytes that are put in mean something in JSON.
inline std::string mutated(std::string text, std::mt19937_64& random) {
    constexpr std::string_view telling =
        "{}[]:,\"\\/ \n\t0123456789+-.eEunltrfasbdDc8\xC3\xA9\xED\xF0";
    const auto below = [&](std::size_t bound) {
        return bound > 0 ? static_cast<std::size_t>(random() % bound) : 0;
    };
    const auto byte = [&] {
        return below(2) > 0 ? telling[below(telling.size())] : static_cast<char>(below(256));
    };
    for (std::size_t changes = 1 + below(3); changes > 0; --changes) {
        const std::size_t place = below(text.size());
        const std::size_t length = below(4) > 0 ? 1 : below(text.size() - place);
        switch (below(5)) {
            case 0:
                text.erase(place, length);
                break;
            case 1:
                text.insert(place, 1, byte());
                break;
            case 2:
                text.insert(place, text.substr(place, length));
                break;
            default:
                if (!text.empty()) {
                    text[place] = byte();
                }
        }
    }
    return text;
}

}  // namespace tarnvale::test
