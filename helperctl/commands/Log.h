// SPDX-License-Identifier: MIT
//
// `log`: prints the helper's log so that it can be read, and goes on as it grows.

#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "helperctl/LogEntries.h"
#include "helperctl/Session.h"
#include "support/UniqueFd.h"

namespace tarnvale::helperctl {

/// A file that grows, is emptied by who writes it, or is replaced.
class GrowingFile {
public:
    explicit GrowingFile(std::string path) : path_(std::move(path)) {}

    /// What has been written since the last call, whole lines only; the rest comes with a later
    /// one. After the file has been emptied: all of it. After it has been replaced: what was
    /// written to the old one, and all of the new one. Nothing while there is no file. Throws
    /// `std::runtime_error` with a sentence when there is a file that can't be read.
    std::string readOn();

    bool exists() const { return static_cast<bool>(file_); }

private:
    bool open();
    bool isReplaced() const;
    std::string readOpenFile();

    std::string path_;
    support::UniqueFd file_;
    long long offset_ = 0;
};

int log(const Session& session);

inline constexpr std::string_view logHelp =
    R"(Prints the helper's log, /var/log/tarnvale-adminhelper.log, which everybody may
read. A message may have several lines: those behind the first one are set off
by "|". A line that has a time but doesn't begin as the helper's messages do is
marked with "?"; it may be part of the message above, made up by whoever chose a
network's name. Control characters are spelled out.

  -f, --follow       print what is logged from now on, too, also after the
                     helper has emptied the log, which it does beyond 512 KiB
  --since TIME       only from this time on: 2025-03-14T09:26:53Z, or the day
                     2025-03-14 (both in UTC), or 10m, 2h or 3d ago
  --operation NAME   only what may be about this request or event:
                     applyFirewall, removeFirewall, createVLAN, deleteVLAN,
                     installCLISymlink, removeCLISymlink, setTarnvaleResolver,
                     admission, start, end

With --format json and -f, each entry is an object on a line of its own.
)";

}  // namespace tarnvale::helperctl
