// SPDX-License-Identifier: MIT

#include "pfctl/language/Rule.h"

#include <cstddef>

namespace tarnvale::pfctl {
namespace {

/// Takes a decimal number without leading zeros off the front of the text.
std::optional<std::uint32_t> takeNumber(std::string_view& text, std::uint32_t most) {
    std::uint32_t value = 0;
    std::size_t digits = 0;
    while (digits < text.size() && text[digits] >= '0' && text[digits] <= '9') {
        value = value * 10 + static_cast<std::uint32_t>(text[digits] - '0');
        ++digits;
        if (value > most) {
            return std::nullopt;
        }
    }
    if (digits == 0 || (digits > 1 && text.front() == '0')) {
        return std::nullopt;
    }
    text.remove_prefix(digits);
    return value;
}

std::optional<std::uint32_t> takeAddress(std::string_view& text) {
    std::uint32_t address = 0;
    for (int octet = 0; octet < 4; ++octet) {
        if (octet > 0) {
            if (text.empty() || text.front() != '.') {
                return std::nullopt;
            }
            text.remove_prefix(1);
        }
        const auto value = takeNumber(text, 255);
        if (!value) {
            return std::nullopt;
        }
        address = address << 8U | *value;
    }
    return address;
}

}  // namespace

std::optional<std::uint32_t> parseAddress(std::string_view text) {
    const auto address = takeAddress(text);
    return text.empty() ? address : std::nullopt;
}

std::optional<Subnet> parseSubnet(std::string_view text) {
    const auto address = takeAddress(text);
    if (!address || text.empty() || text.front() != '/') {
        return std::nullopt;
    }
    text.remove_prefix(1);
    const auto length = takeNumber(text, 32);
    if (!length || !text.empty()) {
        return std::nullopt;
    }
    Subnet subnet{.address = 0, .prefixLength = static_cast<std::uint8_t>(*length)};
    subnet.address = *address & subnet.mask();
    return subnet;
}

}  // namespace tarnvale::pfctl
