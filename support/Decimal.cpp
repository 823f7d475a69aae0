// SPDX-License-Identifier: MIT

#include "support/Decimal.h"

#include <charconv>
#include <system_error>

namespace tarnvale::support {

std::optional<std::int64_t> parseDecimal(
    std::string_view text, std::int64_t min, std::int64_t max) {
    // from_chars reads a minus sign itself, but not a plus.
    if (text.starts_with('+')) {
        text.remove_prefix(1);
        if (text.starts_with('-')) {
            return std::nullopt;
        }
    }
    std::int64_t value = 0;
    const auto* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc{} || stop != end || value < min || value > max) {
        return std::nullopt;
    }
    return value;
}

}  // namespace tarnvale::support
