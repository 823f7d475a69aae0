// SPDX-License-Identifier: MIT

#include "support/Text.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace tarnvale::support {

namespace {

// White space first, then the line ends, so that each trim set is a part of one table.
constexpr std::array<std::string_view, 26> blanks = {
    "\t",     " ",      "\u00A0", "\u1680", "\u2000", "\u2001", "\u2002", "\u2003", "\u2004",
    "\u2005", "\u2006", "\u2007", "\u2008", "\u2009", "\u200A", "\u200B", "\u202F", "\u205F",
    "\u3000", "\n",     "\v",     "\f",     "\r",     "\u0085", "\u2028", "\u2029",
};
constexpr std::size_t lineBreakCount = 7;
using BlankSet = std::span<const std::string_view>;
constexpr BlankSet whitespaceAndNewlines = blanks;
constexpr BlankSet whitespace = whitespaceAndNewlines.first(blanks.size() - lineBreakCount);

constexpr std::uint8_t byteAt(std::string_view text, std::size_t place) {
    return static_cast<std::uint8_t>(text[place]);
}

/// True for visible ASCII, with which no blank begins or ends. Nearly all bytes are visible ASCII.
constexpr bool isVisibleAscii(char c) {
    return c > ' ' && c < '\x7F';
}

/// The length of the blank at the start of the text; 0 if there is none.
std::size_t leadingBlank(std::string_view text, BlankSet set) {
    if (text.empty() || isVisibleAscii(text.front())) {
        return 0;
    }
    for (const std::string_view blank : set) {
        if (text.starts_with(blank)) {
            return blank.size();
        }
    }
    return 0;
}

std::size_t trailingBlank(std::string_view text, BlankSet set) {
    if (text.empty() || isVisibleAscii(text.back())) {
        return 0;
    }
    for (const std::string_view blank : set) {
        if (text.ends_with(blank)) {
            return blank.size();
        }
    }
    return 0;
}

std::string_view trim(std::string_view text, BlankSet set) {
    for (auto length = leadingBlank(text, set); length > 0; length = leadingBlank(text, set)) {
        text.remove_prefix(length);
    }
    for (auto length = trailingBlank(text, set); length > 0; length = trailingBlank(text, set)) {
        text.remove_suffix(length);
    }
    return text;
}

/// The length of the line break at this place in bytes; 0 if there is none.
std::size_t lineBreakLength(std::string_view text, std::size_t place) {
    switch (byteAt(text, place)) {
        case '\n':
        case '\v':
        case '\f':
        case '\r':
            return 1;
        case 0xC2:
            return text.substr(place).starts_with("\u0085") ? 2 : 0;
        case 0xE2: {
            const std::string_view rest = text.substr(place);
            return rest.starts_with("\u2028") || rest.starts_with("\u2029") ? 3 : 0;
        }
        default:
            return 0;
    }
}

/// How many bytes at the front are ASCII, counted by words; up to seven too few.
std::size_t asciiLength(std::string_view bytes) {
    std::size_t length = 0;
    std::uint64_t word = 0;
    while (bytes.size() - length >= sizeof word) {
        std::memcpy(&word, bytes.data() + length, sizeof word);
        if ((word & 0x8080808080808080U) != 0) {
            break;
        }
        length += sizeof word;
    }
    return length;
}

/// A character, or the longest prefix of one where the bytes stop being UTF-8.
struct Part {
    std::size_t length = 1;
    bool isCharacter = false;
};

/// The part at this place. The ranges are those of the Unicode standard's table of well-formed
/// byte sequences: no overlong forms, no surrogates, nothing above U+10FFFF.
Part partAt(std::string_view bytes, std::size_t place) {
    const std::uint8_t lead = byteAt(bytes, place);
    if (lead < 0x80) {
        return {.isCharacter = true};
    }
    if (lead < 0xC2 || lead > 0xF4) {
        return {};
    }
    const std::size_t whole = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    // Only the second byte's range depends on the lead byte.
    std::uint8_t low = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    std::uint8_t high = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
    for (std::size_t length = 1; length < whole; ++length) {
        if (place + length == bytes.size()) {
            return {.length = length};
        }
        const std::uint8_t next = byteAt(bytes, place + length);
        if (next < low || next > high) {
            return {.length = length};
        }
        low = 0x80;
        high = 0xBF;
    }
    return {.length = whole, .isCharacter = true};
}

/// How many bytes at the front are UTF-8.
std::size_t validLength(std::string_view bytes) {
    std::size_t length = 0;
    while (length < bytes.size()) {
        length += asciiLength(bytes.substr(length));
        // After a run of ASCII, look at a word's worth of bytes one character at a time.
        const std::size_t end = std::min(bytes.size(), length + sizeof(std::uint64_t));
        while (length < end) {
            const Part part = partAt(bytes, length);
            if (!part.isCharacter) {
                return length;
            }
            length += part.length;
        }
    }
    return length;
}

}  // namespace

std::string_view trimWhitespace(std::string_view text) {
    return trim(text, whitespace);
}

std::string_view trimWhitespaceAndNewlines(std::string_view text) {
    return trim(text, whitespaceAndNewlines);
}

void appendOnOneLine(std::string& out, std::string_view text) {
    std::size_t begin = 0;
    std::size_t place = 0;
    while (place < text.size()) {
        const std::size_t length = lineBreakLength(text, place);
        if (length == 0) {
            ++place;
            continue;
        }
        out.append(text, begin, place - begin);
        out += ' ';
        place += length;
        begin = place;
    }
    out.append(text, begin);
}

std::string asciiLower(std::string_view text) {
    std::string lower(text);
    for (char& c : lower) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return lower;
}

bool isValidUtf8(std::string_view bytes) {
    return validLength(bytes) == bytes.size();
}

std::size_t characterLength(std::string_view bytes) {
    const Part part = bytes.empty() ? Part{} : partAt(bytes, 0);
    return part.isCharacter ? part.length : 0;
}

std::string repairedUtf8(std::string_view bytes) {
    std::string text;
    text.reserve(bytes.size());
    for (;;) {
        const std::size_t length = validLength(bytes);
        text.append(bytes, 0, length);
        if (length == bytes.size()) {
            return text;
        }
        text += "\uFFFD";
        bytes.remove_prefix(length + partAt(bytes, length).length);
    }
}

std::vector<std::string_view> split(std::string_view text, char separator) {
    std::vector<std::string_view> pieces;
    for (;;) {
        const std::size_t end = text.find(separator);
        pieces.push_back(text.substr(0, end));
        if (end == std::string_view::npos) {
            return pieces;
        }
        text.remove_prefix(end + 1);
    }
}

}  // namespace tarnvale::support
