// SPDX-License-Identifier: MIT

#include "firewall/enforce/StatusReport.h"

#include <string_view>

#include "firewall/enforce/Pfctl.h"
#include "firewall/policy/AnchorText.h"
#include "support/Text.h"

namespace tarnvale::HelperFirewall {
namespace {

/// The first two lines that are not empty, joined by a line feed.
std::string firstTwoLines(std::string_view text) {
    std::string lines;
    int count = 0;
    for (const auto line : support::split(text, '\n')) {
        if (line.empty()) {
            continue;
        }
        if (count > 0) {
            lines += '\n';
        }
        lines += line;
        if (++count == 2) {
            break;
        }
    }
    return lines;
}

}  // namespace

std::string statusReport() {
    const auto status = pfStatus();
    return statusReport(status, listAnchorRules());
}

std::string statusReport(const CommandResult& status, const CommandResult& rules) {
    const auto listing = combinedOutput(rules);

    std::string report = "== pf status ==\n";
    report += firstTwoLines(status.standardOutput);
    report += "\n\n== ";
    report += NetworkFirewall::anchorName;
    report += " ==\n";
    report += listing.empty() ? "(anchor is empty — nothing enforced)" : listing;
    return report;
}

}  // namespace tarnvale::HelperFirewall
