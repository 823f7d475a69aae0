// SPDX-License-Identifier: MIT
//
// What a line of a generated ruleset may be, stated independently of the code that writes it: as
// much of pf's grammar as rules for virtual networks need, and nothing else.

#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <string>
#include <string_view>

#include "tests/support/Pattern.h"

namespace tarnvale::test {

/// Whether the word is a decimal number from `min` to `max` without needless zeros.
inline bool isNumber(const std::string& word, unsigned min, unsigned max) {
    static const Pattern digits("0|[1-9][0-9]{0,5}");
    return digits.matches(word) && std::stoul(word) >= min && std::stoul(word) <= max;
}

inline bool isPfAddress(const std::string& word) {
    static const Pattern form(R"((\d+)\.(\d+)\.(\d+)\.(\d+)/(\d+))");
    const auto match = form.groupsOf(word);
    if (match.empty()) {
        return word == "any";
    }
    return isNumber(match[1], 0, 255) && isNumber(match[2], 0, 255) && isNumber(match[3], 0, 255) &&
           isNumber(match[4], 0, 255) && isNumber(match[5], 0, 32);
}

inline bool isPfPorts(const std::string& word) {
    const std::size_t colon = word.find(':');
    if (colon == std::string::npos) {
        return isNumber(word, 1, 65535);
    }
    const std::string first = word.substr(0, colon);
    const std::string last = word.substr(colon + 1);
    return isNumber(first, 1, 65535) && isNumber(last, 1, 65535) &&
           std::stoul(first) <= std::stoul(last);
}

/// Whether the line is one rule that pf loads.
inline bool isPfRule(const std::string& line) {
    static const Pattern form(
        "(pass|block drop) (in|out) quick(?: proto (tcp|udp|icmp))?"
        " from ([^ ]+)(?: port ([^ ]+))? to ([^ ]+)(?: port ([^ ]+))?( keep state)?");
    if (line.size() > 200) {
        return false;
    }
    const auto match = form.groupsOf(line);
    if (match.empty()) {
        return false;
    }
    const bool hasPorts = !match[5].empty() || !match[7].empty();
    return isPfAddress(match[4]) && isPfAddress(match[6]) &&
           (match[5].empty() || isPfPorts(match[5])) && (match[7].empty() || isPfPorts(match[7])) &&
           (!hasPorts || match[3] == "tcp" || match[3] == "udp") &&
           (match[8].empty() || match[1] == "pass");
}

/// Whether every reader takes the text for one line, however it breaks lines, and pf's own doesn't
/// join the next line to it.
inline bool isOneLine(std::string_view text) {
    static constexpr std::array<std::string_view, 7> breaks = {
        "\n", "\v", "\f", "\r", "\xC2\x85", "\xE2\x80\xA8", "\xE2\x80\xA9"};
    return !text.ends_with('\\') && std::all_of(breaks.begin(), breaks.end(), [&](auto each) {
        return text.find(each) == std::string_view::npos;
    });
}

/// Whether the line may be in a generated ruleset.
inline bool isRulesetLine(const std::string& line) {
    return line.empty() || (line.starts_with("# ") ? isOneLine(line) : isPfRule(line));
}

}  // namespace tarnvale::test
