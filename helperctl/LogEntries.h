// SPDX-License-Identifier: MIT
//
// The helper's log as entries. A message may hold line feeds, so an entry may have several lines,
// and a line in it may look like the start of another entry: a network's name may hold anything.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarnvale::helperctl {

inline constexpr const char* logPath = "/var/log/tarnvale-adminhelper.log";

struct LogEntry {
    enum class Outcome : std::uint8_t { changed, note, refused, failed };

    std::string time;                  ///< "2025-03-14T09:26:53Z"; empty before the first entry
    std::vector<std::string> message;  ///< its lines
    std::string_view operations;       ///< that it may be about, with spaces between them
    Outcome outcome = Outcome::note;
    bool isOurs = false;  ///< whether the message begins as one of the helper's

    /// Whether this is one of its operations.
    bool isAbout(std::string_view operation) const;
};

/// The words that `isAbout` knows.
std::vector<std::string_view> logOperations();

/// Whether the line has the form of an entry's first one: a time, a space and a message.
bool beginsEntry(std::string_view line);

/// The entry that begins with the line.
LogEntry entryOf(std::string_view line);

/// The entries of a log. Lines before the first entry make one without a time.
std::vector<LogEntry> entriesOf(std::string_view log);

/// The time that "--since" names, in the log's form: a time or a day in that form, or "10m", "2h"
/// or "3d" before `now`. Nothing for any other text, nor for a time that can't be.
std::optional<std::string> timeSince(std::string_view text, std::int64_t now);

}  // namespace tarnvale::helperctl
