// SPDX-License-Identifier: MIT
//
// Reads the helper's report: whether pf runs, and the lines in force with their counters. The lines
// are in the form in which pf lists rules, on macOS and on Linux.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "firewall/analysis/Lines.h"

namespace tarnvale::FirewallAnalysis {

/// What pf has counted at a line since the ruleset was loaded.
struct Counters {
    std::uint64_t evaluations = 0;
    std::uint64_t packets = 0;
    std::uint64_t bytes = 0;
    std::uint64_t states = 0;  ///< now

    bool operator==(const Counters&) const = default;
};

/// One line in force. Its origin is known for DHCP lines only; for others it is `rule`.
struct ListedLine {
    std::string text;     ///< as listed
    AddressRange subnet;  ///< of the network that it is about
    Line line;
    std::optional<Counters> counters;
};

struct Listing {
    std::string status;             ///< such as "Status: Enabled for 0 days 00:10:11"; may be empty
    std::optional<bool> isEnabled;  ///< nothing if the report doesn't say
    std::vector<ListedLine> lines;
    std::vector<std::string> others;  ///< what isn't a line of ours, such as pfctl's complaints
};

/// What a report says. Nothing for a text that isn't one.
std::optional<Listing> readReport(std::string_view report);

/// A listed rule, as the helper's ruleset has them. Nothing for any other text.
std::optional<ListedLine> readListedLine(std::string_view text);

/// Whether both lines match the same packets and decide the same, wherever they come from.
bool sameEffect(const Line& a, const Line& b);

}  // namespace tarnvale::FirewallAnalysis
