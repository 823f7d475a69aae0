// SPDX-License-Identifier: MIT
//
// Points in time, as log lines and rulesets print them and as the policy store keeps them.

#pragma once

#include <chrono>
#include <compare>
#include <string>

namespace tarnvale::support {

/// Internet date-time in UTC without a fraction: "2025-03-14T09:26:53Z".
std::string iso8601(std::chrono::system_clock::time_point time);

/// A point in time as Foundation's Date encodes it: seconds since 2001-01-01 00:00:00 UTC.
struct ReferenceDate {
    double seconds = 0;

    static ReferenceDate now();

    /// Earlier than the date of any user's action: 0001-01-01 00:00:00 UTC.
    static constexpr ReferenceDate distantPast() { return {-63114076800.0}; }

    // NOLINTNEXTLINE(modernize-use-nullptr): it takes the 0 of the defaulted <=> for a pointer
    auto operator<=>(const ReferenceDate&) const = default;
};

}  // namespace tarnvale::support
