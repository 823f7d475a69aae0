// SPDX-License-Identifier: MIT
//
// What `explain` answers: what becomes of one packet, and why.

#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "support/Json.h"

namespace tarnvale::helperctl {

/// A line of the ruleset, and what gave it.
struct ExplainedLine {
    std::string line;                  ///< in pf's own language
    std::string origin;                ///< "dhcp", "dns", "rule" or "default"; "line" if unknown
    std::string words;                 ///< "rule 2 (deny 10.0.0.0/8)"
    std::optional<std::int64_t> rule;  ///< its number, counted from 1
    std::optional<std::string> path;   ///< of the rule in the file: "[0].policy.rules[1]"
    std::optional<std::string> why;    ///< why it doesn't match

    bool operator==(const ExplainedLine&) const = default;
};

/// One look of pf at the packet.
struct ExplainedCrossing {
    std::string direction;  ///< "in" or "out"
    std::string network;
    bool passes = true;
    std::optional<ExplainedLine> decides;
    std::vector<ExplainedLine> before;  ///< that were looked at and didn't match

    bool operator==(const ExplainedCrossing&) const = default;
};

struct Explanation {
    std::string packet;
    std::string verdict;   ///< "passed" or "blocked"
    std::string sentence;  ///< the same with the reason, without a full stop
    std::vector<ExplainedCrossing> crossings;
    std::vector<std::string> notes;  ///< what else there is to know, as sentences

    bool operator==(const Explanation&) const = default;
};

void printText(const Explanation& explanation, std::ostream& output);

constexpr auto jsonMembers(std::type_identity<ExplainedLine> /*type*/) {
    return std::tuple{
        support::JsonMember{"line", &ExplainedLine::line},
        support::JsonMember{"origin", &ExplainedLine::origin},
        support::JsonMember{"words", &ExplainedLine::words},
        support::JsonMember{"rule", &ExplainedLine::rule},
        support::JsonMember{"path", &ExplainedLine::path},
        support::JsonMember{"why", &ExplainedLine::why}};
}
constexpr auto jsonMembers(std::type_identity<ExplainedCrossing> /*type*/) {
    return std::tuple{
        support::JsonMember{"direction", &ExplainedCrossing::direction},
        support::JsonMember{"network", &ExplainedCrossing::network},
        support::JsonMember{"passes", &ExplainedCrossing::passes},
        support::JsonMember{"decides", &ExplainedCrossing::decides},
        support::JsonMember{"before", &ExplainedCrossing::before}};
}
constexpr auto jsonMembers(std::type_identity<Explanation> /*type*/) {
    return std::tuple{
        support::JsonMember{"packet", &Explanation::packet},
        support::JsonMember{"verdict", &Explanation::verdict},
        support::JsonMember{"sentence", &Explanation::sentence},
        support::JsonMember{"crossings", &Explanation::crossings},
        support::JsonMember{"notes", &Explanation::notes}};
}

}  // namespace tarnvale::helperctl
