// SPDX-License-Identifier: MIT
//
// What pfctl may have printed: its output, a zero byte, its errors. The sentence for the user and
// the report keep of it what a plain walk over its lines keeps, and who reads the report finds all
// lines in it.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "firewall/analysis/Listing.h"
#include "firewall/enforce/Pfctl.h"
#include "firewall/enforce/StatusReport.h"
#include "platform/Command.h"
#include "support/Text.h"
#include "tests/fuzz/Require.h"
#include "tests/support/Lines.h"

namespace tarnvale::HelperFirewall {
namespace {

using test::linesOf;
using test::require;

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) {
        text += (&line == lines.data() ? "" : "\n") + line;
    }
    return text;
}

constexpr std::array blanks = {
    "\t",
    " ",
    "\u00A0",
    "\u1680",
    "\u2000",
    "\u2001",
    "\u2002",
    "\u2003",
    "\u2004",
    "\u2005",
    "\u2006",
    "\u2007",
    "\u2008",
    "\u2009",
    "\u200A",
    "\u200B",
    "\u202F",
    "\u205F",
    "\u3000"};
constexpr std::array lineBreaks = {"\n", "\v", "\f", "\r", "\u0085", "\u2028", "\u2029"};

/// Cuts one blank after the other off both ends.
std::string trimmed(std::string text, bool ofLineBreaks) {
    std::vector<std::string> all(blanks.begin(), blanks.end());
    if (ofLineBreaks) {
        all.insert(all.end(), lineBreaks.begin(), lineBreaks.end());
    }
    for (bool changes = true; changes;) {
        changes = false;
        for (const std::string& blank : all) {
            if (text.starts_with(blank)) {
                text.erase(0, blank.size());
                changes = true;
            } else if (text.ends_with(blank)) {
                text.erase(text.size() - blank.size());
                changes = true;
            }
        }
    }
    return text;
}

bool isNoise(const std::string& line) {
    const std::array<std::string, 5> notices = {
        "Use of -f option",
        "present in the main ruleset",
        "See /etc/pf.conf",
        "No ALTQ support",
        "ALTQ related functions"};
    return trimmed(line, false).empty() ||
           std::ranges::any_of(notices, [&](const std::string& notice) {
               return line.find(notice) != std::string::npos;
           });
}

void checkMessage(const std::string& output) {
    auto lines = linesOf(output);
    std::erase_if(lines, isNoise);
    const std::string kept = joined(lines);
    require(pfctlMessage(output) == (kept.empty() ? trimmed(output, true) : kept));
}

void checkReport(const CommandResult& status, const CommandResult& rules) {
    std::vector<std::string> parts{
        trimmed(rules.standardOutput, true), trimmed(rules.standardError, true)};
    std::erase(parts, "");
    const std::string listing = joined(parts);
    require(combinedOutput(rules) == listing);

    auto summary = linesOf(status.standardOutput);
    std::erase(summary, "");
    summary.resize(std::min<std::size_t>(summary.size(), 2));
    const std::string report = statusReport(status, rules);
    require(
        report == "== pf status ==\n" + joined(summary) +
                      "\n\n== com.apple/900.tarnvale.firewall ==\n" +
                      (listing.empty() ? "(anchor is empty — nothing enforced)" : listing));

    const auto read = FirewallAnalysis::readReport(report);
    require(!read || read->lines.size() + read->others.size() <= linesOf(listing).size() + 1);
    if (read) {
        for (const auto& line : read->lines) {
            const auto again = FirewallAnalysis::readListedLine(line.text);
            require(again && FirewallAnalysis::sameEffect(again->line, line.line));
        }
    }
}

void check(std::string_view bytes) {
    // Texts are UTF-8 when they get here.
    const auto middle = std::min(bytes.find('\0'), bytes.size());
    const auto output = support::repairedUtf8(bytes.substr(0, middle));
    const auto errors = support::repairedUtf8(bytes.substr(std::min(middle + 1, bytes.size())));
    checkMessage(output);
    checkMessage(errors);
    const CommandResult result{.status = 0, .standardOutput = output, .standardError = errors};
    checkReport(result, result);
}

}  // namespace
}  // namespace tarnvale::HelperFirewall

// NOLINTNEXTLINE(readability-identifier-naming): the name that libFuzzer calls
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    tarnvale::HelperFirewall::check({reinterpret_cast<const char*>(data), size});
    return 0;
}
