// SPDX-License-Identifier: MIT
//
// What pfctl keeps besides the kernel's tables: since when pf has been enabled, its token, and the
// lock that commands hold while they change something. A reboot clears it, as it clears the tables.

#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "support/UniqueFd.h"

namespace tarnvale::pfctl {

inline constexpr const char* runFolder = "/run/com.brackwen.tarnvale.pfctl";

struct Enabled {
    std::uint64_t since = 0;  ///< seconds of the clock that starts with the machine
    std::uint64_t token = 0;

    bool operator==(const Enabled&) const = default;
};

/// Nothing when pf is disabled: no file of ours says otherwise. Throws `PfctlError` when that can't
/// be found out for now, as where the machine has no more files to open.
std::optional<Enabled> readEnabled();

/// What a file with that text says; nothing if the text isn't of that form.
std::optional<Enabled> enabledIn(std::string_view text);

/// Records that pf is enabled from now on, with a new token. Throws `PfctlError`.
Enabled writeEnabled();

/// Seconds since the machine started, including its sleep.
std::uint64_t uptime();

/// Held from construction to the end of the scope or of the process.
class RunLock {
public:
    enum class WhenTaken { fail, wait };

    /// Throws `PfctlError`; with `fail` its text is what pf says when two loads meet.
    explicit RunLock(WhenTaken whenTaken);

private:
    support::UniqueFd fd_;
};

}  // namespace tarnvale::pfctl
