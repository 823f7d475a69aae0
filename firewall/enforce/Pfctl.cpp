// SPDX-License-Identifier: MIT

#include "firewall/enforce/Pfctl.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <thread>

#include "core/base/HelperLog.h"
#include "firewall/policy/AnchorText.h"
#include "firewall/policy/HelperError.h"
#include "support/Text.h"

namespace tarnvale::HelperFirewall {
namespace {

using NetworkFirewall::anchorName;

constexpr int maxAttempts = 6;
constexpr std::chrono::milliseconds busyDelay{400};

/// Lines with these texts are not errors: pfctl prints them with any load.
constexpr std::array<std::string_view, 5> notices = {
    "Use of -f option",
    "present in the main ruleset",
    "See /etc/pf.conf",
    "No ALTQ support",
    "ALTQ related functions"};

bool isNotice(std::string_view line) {
    return std::any_of(notices.begin(), notices.end(), [&](std::string_view notice) {
        return line.find(notice) != std::string_view::npos;
    });
}

}  // namespace

CommandResult runPfctl(const std::vector<std::string>& arguments) {
    return platform::runCommand(pfctlPath, arguments);
}

std::string combinedOutput(const CommandResult& result) {
    std::string combined(support::trimWhitespaceAndNewlines(result.standardOutput));
    const auto errors = support::trimWhitespaceAndNewlines(result.standardError);
    if (!combined.empty() && !errors.empty()) {
        combined += '\n';
    }
    combined += errors;
    return combined;
}

std::string pfctlMessage(std::string_view output) {
    std::string message;
    for (const auto line : support::split(output, '\n')) {
        if (support::trimWhitespace(line).empty() || isNotice(line)) {
            continue;
        }
        if (!message.empty()) {
            message += '\n';
        }
        message += line;
    }
    return message.empty() ? std::string(support::trimWhitespaceAndNewlines(output)) : message;
}

void loadRulesetFile(const std::string& path) {
    for (int attempt = 1;; ++attempt) {
        const auto result = runPfctl({"-a", std::string(anchorName), "-f", path});
        if (result.status == 0) {
            if (attempt > 1) {
                helperLog(
                    "pf was busy; the ruleset loaded on attempt " + std::to_string(attempt) + ".");
            }
            return;
        }
        const auto output = combinedOutput(result);
        if (output.find("Resource busy") == std::string::npos || attempt >= maxAttempts) {
            throw HelperError::pfctlFailed(pfctlMessage(output));
        }
        std::this_thread::sleep_for(busyDelay);
    }
}

void enablePf() {
    runPfctl({"-E"});
}

void killStates(const std::string& subnetCIDR) {
    runPfctl({"-k", subnetCIDR});
    runPfctl({"-k", "0.0.0.0/0", "-k", subnetCIDR});
}

void flushAnchor() {
    runPfctl({"-a", std::string(anchorName), "-F", "rules"});
}

void flushLegacyAnchor() {
    runPfctl({"-a", legacyAnchorName, "-F", "rules"});
}

CommandResult pfStatus() {
    return runPfctl({"-si"});
}

CommandResult listAnchorRules() {
    return runPfctl({"-a", std::string(anchorName), "-v", "-sr"});
}

}  // namespace tarnvale::HelperFirewall
