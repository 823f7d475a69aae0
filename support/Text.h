// SPDX-License-Identifier: MIT
//
// Text as every program here treats it: UTF-8, split and trimmed by code point. Nothing here
// depends on the locale.

#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace tarnvale::support {

/// The text without white space at both ends: U+0009, U+0020, U+00A0, U+1680, U+2000 to U+200B,
/// U+202F, U+205F and U+3000. Line ends don't count as white space here.
std::string_view trimWhitespace(std::string_view text);

/// The text without white space and line ends at both ends: those of `trimWhitespace`, U+000A to
/// U+000D, U+0085, U+2028 and U+2029.
std::string_view trimWhitespaceAndNewlines(std::string_view text);

/// Appends the text to `out`, with each line-break code point (U+000A to U+000D, U+0085, U+2028,
/// U+2029) replaced by one space.
void appendOnOneLine(std::string& out, std::string_view text);

/// A to Z in lower case, everything else as it is.
std::string asciiLower(std::string_view text);

bool isValidUtf8(std::string_view bytes);

/// The length of the character at the start of the bytes; 0 if there is none.
std::size_t characterLength(std::string_view bytes);

/// The bytes as UTF-8, with each maximal ill-formed part replaced by one U+FFFD.
std::string repairedUtf8(std::string_view bytes);

/// The pieces between the separators, empty ones included: n separators give n + 1 pieces.
std::vector<std::string_view> split(std::string_view text, char separator);

}  // namespace tarnvale::support
