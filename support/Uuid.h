// SPDX-License-Identifier: MIT
//
// A UUID: 16 bytes, and its text in the standard 8-4-4-4-12 form.

#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tarnvale::support {

struct Uuid {
    static constexpr std::size_t textLength = 36;

    std::array<std::uint8_t, 16> bytes{};  ///< in the order in which the text shows them

    /// Takes exactly the 36 characters of the text form, with hexadecimal digits of either case.
    static std::optional<Uuid> parse(std::string_view text);

    /// 36 characters, upper case. These texts sort as the bytes do.
    std::string text() const;
    void appendTo(std::string& out) const;

    // With the result type spelled out, the compiler can derive <=> from == and < where arrays have
    // no <=>.
    // NOLINTNEXTLINE(modernize-use-nullptr): it takes the 0 of the defaulted <=> for a pointer
    std::strong_ordering operator<=>(const Uuid&) const = default;
};

}  // namespace tarnvale::support
