// SPDX-License-Identifier: MIT

#include "firewall/policy/Summary.h"

namespace tarnvale::NetworkFirewall {
namespace {

/// "3 networks", "1 rule".
std::string counted(std::size_t count, const char* noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string joinedNames(std::span<const FirewallNetworkPolicy> networks) {
    std::string names;
    for (const auto& network : networks) {
        if (&network != networks.data()) {
            names += ", ";
        }
        names += network.name;
    }
    return names;
}

void appendSkippedRules(std::string& summary, std::size_t count) {
    if (count > 0) {
        summary += " · " + counted(count, "rule") + " skipped";
    }
}

}  // namespace

std::string summaryForAllUsers(const Review& all) {
    const auto count = all.enforceable.size();
    std::string summary = count == 0 ? "No networks have an enabled firewall — the anchor is empty."
                                     : "Enforcing " + counted(count, "network") +
                                           " for all users: " + joinedNames(all.enforceable);
    appendSkippedRules(summary, all.skippedRules.size());
    return summary;
}

std::string summaryForCaller(const Review& own, std::size_t otherUsersNetworks) {
    const auto count = own.enforceable.size();
    std::string summary =
        count == 0 ? "None of your networks has an enabled firewall."
                   : "Enforcing " + counted(count, "network") + ": " + joinedNames(own.enforceable);
    appendSkippedRules(summary, own.skippedRules.size());
    if (otherUsersNetworks > 0) {
        summary += " · " + std::to_string(otherUsersNetworks) + " more for other users of this Mac";
    }
    return summary;
}

std::vector<std::string> linesOf(std::span<const Note> notes) {
    std::vector<std::string> lines;
    lines.reserve(notes.size());
    for (const auto& note : notes) {
        lines.push_back(note.label() + ": " + note.problem);
    }
    return lines;
}

}  // namespace tarnvale::NetworkFirewall
