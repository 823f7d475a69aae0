// SPDX-License-Identifier: MIT

#include "helperctl/LogEntries.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>

#include "support/Decimal.h"
#include "support/Text.h"
#include "support/Timestamp.h"

namespace tarnvale::helperctl {
namespace {

using LogOutcome = LogEntry::Outcome;

constexpr std::string_view timeForm = "0000-00-00T00:00:00Z";
constexpr std::string_view requests =
    "applyFirewall removeFirewall createVLAN deleteVLAN installCLISymlink removeCLISymlink "
    "setTarnvaleResolver";

struct Sentence {
    std::string_view start;
    std::string_view operations;
    LogOutcome outcome;
};

/// How the helper's messages begin. "Refused …" and "… failed: " are made for each request.
constexpr std::array sentences{
    Sentence{"Applied firewall. ", "applyFirewall removeFirewall start", LogOutcome::changed},
    Sentence{"Removed uid ", "removeFirewall", LogOutcome::changed},
    Sentence{"Removed firewall enforcement.", "removeFirewall", LogOutcome::changed},
    Sentence{"Boot re-apply: ", "start", LogOutcome::changed},
    Sentence{"Boot re-apply left out: ", "start", LogOutcome::refused},
    Sentence{"Boot re-apply failed: ", "start", LogOutcome::failed},
    Sentence{
        "Persisted firewall policy could not be decoded; ",
        "applyFirewall removeFirewall start",
        LogOutcome::failed},
    Sentence{
        "Removed legacy anchor references ",
        "applyFirewall removeFirewall start",
        LogOutcome::changed},
    Sentence{"pf was busy; ", "applyFirewall removeFirewall start", LogOutcome::note},
    Sentence{
        "Waiting for another process, ", "applyFirewall removeFirewall start", LogOutcome::note},
    Sentence{"Created VLAN ", "createVLAN", LogOutcome::changed},
    Sentence{"Deleted VLAN ", "deleteVLAN", LogOutcome::changed},
    Sentence{"Left VLAN ", "deleteVLAN", LogOutcome::refused},
    Sentence{"Could not record Tarnvale's VLANs: ", "createVLAN deleteVLAN", LogOutcome::failed},
    Sentence{"Linked /", "installCLISymlink", LogOutcome::changed},
    Sentence{"Removed /usr/local/bin/", "installCLISymlink removeCLISymlink", LogOutcome::changed},
    Sentence{"Left /usr/local/bin/", "installCLISymlink removeCLISymlink", LogOutcome::refused},
    Sentence{"Installed /etc/resolver/", "setTarnvaleResolver", LogOutcome::changed},
    Sentence{"Removed /etc/resolver/", "setTarnvaleResolver", LogOutcome::changed},
    Sentence{"Left /etc/resolver/", "setTarnvaleResolver", LogOutcome::refused},
    Sentence{"Helper ", "start", LogOutcome::note},
    Sentence{"Idle; exiting. ", "end", LogOutcome::note},
    Sentence{"Shutdown requested ", "end", LogOutcome::note},
    Sentence{"Rejected XPC client pid=", "admission", LogOutcome::refused},
};

/// The dropped claims of a merge, whose message begins with a subnet.
constexpr std::string_view claimSentence = " is claimed by networks of more than one user; ";

void classify(LogEntry& entry) {
    const std::string_view message = entry.message.front();
    const auto take = [&](std::string_view operations, LogOutcome outcome) {
        entry.operations = operations;
        entry.outcome = outcome;
        entry.isOurs = true;
    };
    for (const auto& [start, operations, outcome] : sentences) {
        if (message.starts_with(start)) {
            return take(operations, outcome);
        }
    }
    for (const auto request : support::split(requests, ' ')) {
        const std::string name(request);
        if (message.starts_with("Refused " + name + " for uid ")) {
            return take(request, LogOutcome::refused);
        }
        if (message.starts_with(name + " failed: ")) {
            return take(request, LogOutcome::failed);
        }
    }
    if (message.find(claimSentence) != std::string_view::npos) {
        take("applyFirewall removeFirewall start", LogOutcome::refused);
    }
}

bool hasForm(std::string_view text, std::string_view form) {
    return text.size() == form.size() &&
           std::equal(text.begin(), text.end(), form.begin(), [](char c, char wanted) {
               return wanted == '0' ? support::isDigit(c) : c == wanted;
           });
}

/// Whether there is such a day, and such a time if the text has one: not 2025-02-30, nor 24:00:00.
bool isPossible(std::string_view text) {
    const auto number = [&](std::size_t place, std::size_t length) {
        return static_cast<unsigned>(
            support::parseDecimal(text.substr(place, length), 0, 9999).value());
    };
    const std::chrono::year_month_day date{
        std::chrono::year(static_cast<int>(number(0, 4))),
        std::chrono::month(number(5, 2)),
        std::chrono::day(number(8, 2))};
    const bool hasTime = text.size() == timeForm.size();
    return date.ok() &&
           (!hasTime || (number(11, 2) < 24 && number(14, 2) < 60 && number(17, 2) < 60));
}

}  // namespace

bool LogEntry::isAbout(std::string_view operation) const {
    const auto words = support::split(operations, ' ');
    return !operation.empty() && std::ranges::find(words, operation) != words.end();
}

std::vector<std::string_view> logOperations() {
    auto words = support::split(requests, ' ');
    words.insert(words.end(), {"admission", "start", "end"});
    return words;
}

bool beginsEntry(std::string_view line) {
    return line.size() > timeForm.size() && line[timeForm.size()] == ' ' &&
           hasForm(line.substr(0, timeForm.size()), timeForm);
}

LogEntry entryOf(std::string_view line) {
    LogEntry entry;
    entry.time = line.substr(0, timeForm.size());
    entry.message.emplace_back(line.substr(timeForm.size() + 1));
    classify(entry);
    return entry;
}

std::vector<LogEntry> entriesOf(std::string_view log) {
    std::vector<LogEntry> entries;
    if (log.ends_with('\n')) {
        log.remove_suffix(1);
    }
    for (const auto line : support::split(log, '\n')) {
        if (beginsEntry(line)) {
            entries.push_back(entryOf(line));
        } else if (!entries.empty()) {
            entries.back().message.emplace_back(line);
        } else if (!line.empty()) {
            entries.emplace_back().message.emplace_back(line);
        }
    }
    return entries;
}

std::optional<std::string> timeSince(std::string_view text, std::int64_t now) {
    if (hasForm(text, timeForm) || hasForm(text, timeForm.substr(0, 10))) {
        return isPossible(text) ? std::optional(std::string(text)) : std::nullopt;
    }
    constexpr std::int64_t minute = 60;
    const auto unit = text.empty() ? ' ' : text.back();
    const std::int64_t seconds = unit == 'm'   ? minute
                                 : unit == 'h' ? 60 * minute
                                 : unit == 'd' ? 1440 * minute
                                               : 0;
    const auto count =
        support::parseDecimal(text.substr(0, text.empty() ? 0 : text.size() - 1), 0, 100'000);
    if (seconds == 0 || !count) {
        return std::nullopt;
    }
    return support::iso8601(
        std::chrono::system_clock::time_point(std::chrono::seconds(now - *count * seconds)));
}

}  // namespace tarnvale::helperctl
