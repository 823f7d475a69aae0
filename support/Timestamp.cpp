// SPDX-License-Identifier: MIT

#include "support/Timestamp.h"

#include <cstddef>

namespace tarnvale::support {

namespace {

/// Writes the number in decimal into the place that ends before `end`, as far as it reaches.
void putDigits(std::string& text, std::size_t end, std::size_t count, unsigned number) {
    for (std::size_t i = 1; i <= count; ++i) {
        text[end - i] = static_cast<char>('0' + number % 10);
        number /= 10;
    }
}

}  // namespace

std::string iso8601(std::chrono::system_clock::time_point time) {
    const auto second = std::chrono::floor<std::chrono::seconds>(time);
    const auto day = std::chrono::floor<std::chrono::days>(second);
    const std::chrono::year_month_day date(day);
    const std::chrono::hh_mm_ss clock(second - day);

    std::string text = "0000-00-00T00:00:00Z";
    putDigits(text, 4, 4, static_cast<unsigned>(static_cast<int>(date.year())));
    putDigits(text, 7, 2, static_cast<unsigned>(date.month()));
    putDigits(text, 10, 2, static_cast<unsigned>(date.day()));
    putDigits(text, 13, 2, static_cast<unsigned>(clock.hours().count()));
    putDigits(text, 16, 2, static_cast<unsigned>(clock.minutes().count()));
    putDigits(text, 19, 2, static_cast<unsigned>(clock.seconds().count()));
    return text;
}

ReferenceDate ReferenceDate::now() {
    constexpr std::chrono::sys_days epoch{std::chrono::year(2001) / 1 / 1};
    return {std::chrono::duration<double>(std::chrono::system_clock::now() - epoch).count()};
}

}  // namespace tarnvale::support
