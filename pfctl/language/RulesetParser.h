// SPDX-License-Identifier: MIT
//
// Reads a ruleset: the part of pf.conf that the helper writes, and nothing else, so that a line is
// enforced as it was meant or refused. Blank lines, comments from "#" to the end of the line, and
//
//     pass|block drop  in|out  quick  [proto tcp|udp|icmp]
//         from any|CIDR [port N|N:M]  to any|CIDR [port N|N:M]  [keep state]
//
// A rule may also stand exactly as `Listing.h` prints it, with its counters, which are not read: a
// listing loads as the rules that it lists.
//
// As in pf, a backslash before a line feed joins two lines, in comments too; a carriage return is
// a mistake, and so is a last rule without a line feed. Time and memory are linear in the text.

#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "pfctl/language/Rule.h"

namespace tarnvale::pfctl {

struct Mistake {
    std::size_t line = 0;  ///< counted from 1
    std::string text;

    bool operator==(const Mistake&) const = default;
};

/// Reading stops after so many mistakes: a reader needs the first ones.
inline constexpr std::size_t maxMistakes = 10;

struct ParsedRuleset {
    std::vector<Rule> rules;
    std::vector<Mistake> mistakes;  ///< one per line at most; with any, `rules` is incomplete
};

ParsedRuleset parseRuleset(std::string_view text);

}  // namespace tarnvale::pfctl
