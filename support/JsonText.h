// SPDX-License-Identifier: MIT
//
// What JSON's reader and writer share: runs of plain characters in strings, and numbers.

#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

namespace tarnvale::support {

/// The text behind the mark of UTF-8 that it may begin with.
inline std::string_view withoutByteOrderMark(std::string_view text) {
    constexpr std::string_view mark = "\xEF\xBB\xBF";
    return text.starts_with(mark) ? text.substr(mark.size()) : text;
}

/// True for the ASCII that a string holds unescaped.
inline bool isPlainJson(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte >= ' ' && byte < 0x80 && c != '"' && c != '\\';
}

/// Where the run of plain characters that begins at `next` ends.
inline const char* plainEnd(const char* next, const char* end) {
    // Eight bytes at a time. A subtraction borrows only from bytes above one that has been found,
    // so the lowest mark is always right, and only that one is used.
    if constexpr (std::endian::native == std::endian::little) {
        constexpr std::uint64_t ones = 0x0101010101010101;
        constexpr std::uint64_t highs = 0x8080808080808080;
        while (end - next >= 8) {
            std::uint64_t eight = 0;
            std::memcpy(&eight, next, sizeof eight);
            const std::uint64_t quotes = eight ^ (ones * '"');
            const std::uint64_t backslashes = eight ^ (ones * '\\');
            const std::uint64_t found =
                (eight | (eight - ones * ' ') | (quotes - ones) | (backslashes - ones)) & highs;
            if (found != 0) {
                return next + std::countr_zero(found) / 8;
            }
            next += 8;
        }
    }
    while (next != end && isPlainJson(*next)) {
        ++next;
    }
    return next;
}

/// The integer that a JSON number stands for, however it is written. Nothing if the number isn't an
/// integer of 64 bits.
std::optional<std::int64_t> exactInteger(std::string_view number);

/// The double nearest to a JSON number. Nothing if that is infinite, or 0 for a number that isn't
/// 0.
std::optional<double> nearestDouble(std::string_view number);

/// The shortest decimal text without an exponent that reads back as the same value.
std::string shortestText(double value);

}  // namespace tarnvale::support
